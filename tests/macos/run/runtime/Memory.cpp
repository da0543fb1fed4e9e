#include <cstdlib>
#include <cstring>
#include <mutex>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "runtime/Abi.h"
#include "runtime/Runtime.h"

extern "C" {
void* _Block_copy(const void*);
void _Block_release(const void*);
id objc_retain(id object);
void objc_release(id object);
extern void* _NSConcreteStackBlock[32];
extern void* _NSConcreteMallocBlock[32];
extern void* _NSConcreteGlobalBlock[32];
}

namespace runtime {
namespace {

// Before each object that `create` made.
struct alignas(16) Header {
    long references;
};

struct Counting {
    std::mutex mutex;
    std::unordered_map<id, std::unordered_set<id*>> weakReferences;
    long objects = 0;
};

// Never destroyed: objects outlive static destruction.
Counting& counting() {
    static auto* const all = new Counting;
    return *all;
}

Class constantStringClass = nullptr;

Header* headerOf(id object) {
    return reinterpret_cast<Header*>(object) - 1;
}

bool isBlock(id object) {
    const void* const isa = object->isa;
    return isa == _NSConcreteStackBlock || isa == _NSConcreteMallocBlock || isa == _NSConcreteGlobalBlock;
}

// What the compiler laid down lives for ever: texts, classes, protocols.
bool isImmortal(id object) {
    if (isTinyString(object)) {
        return true;
    }
    return !isBlock(object) && (object->isa == constantStringClass || (object->isa->info & 1) != 0 ||
                                std::strcmp(object->isa->name, "Protocol") == 0);
}

struct Pool {
    std::vector<id> objects;
    std::size_t depth = 0;
};

Pool& pool() {
    thread_local Pool ofThread;
    return ofThread;
}

// From the root down, as C++ constructs bases first; destruction goes the other way.
void construct(id object, Class type) {
    if (type == nullptr) {
        return;
    }
    construct(object, type->superclass);
    for (const objc_method_list* list = type->methods; list != nullptr; list = list->next) {
        for (int i = 0; i < list->count; ++i) {
            if (std::strcmp(list->methods[i].selector->name, ".cxx_construct") == 0) {
                reinterpret_cast<id (*)(id, Selector)>(list->methods[i].imp)(object,
                                                                             list->methods[i].selector);
            }
        }
    }
}

void destruct(id object, Class type) {
    for (; type != nullptr; type = type->superclass) {
        for (const objc_method_list* list = type->methods; list != nullptr; list = list->next) {
            for (int i = 0; i < list->count; ++i) {
                if (std::strcmp(list->methods[i].selector->name, ".cxx_destruct") == 0) {
                    reinterpret_cast<void (*)(id, Selector)>(list->methods[i].imp)(object,
                                                                                   list->methods[i].selector);
                }
            }
        }
    }
}

// Weak references see nothing of an object from here on.
bool dropReference(id object) {
    Counting& all = counting();
    const std::lock_guard<std::mutex> lock(all.mutex);
    if (headerOf(object)->references <= 0) {
        fail(std::string("over-release of a ") + object->isa->name);
    }
    if (--headerOf(object)->references > 0) {
        return false;
    }
    const auto weak = all.weakReferences.find(object);
    if (weak != all.weakReferences.end()) {
        for (id* reference : weak->second) {
            *reference = nullptr;
        }
        all.weakReferences.erase(weak);
    }
    return true;
}

void forget(id* reference) {
    Counting& all = counting();
    const auto weak = all.weakReferences.find(*reference);
    if (*reference != nullptr && weak != all.weakReferences.end()) {
        weak->second.erase(reference);
    }
}

}  // namespace

void setConstantStringClass(Type type) {
    constantStringClass = static_cast<Class>(type);
}

long liveObjects() {
    const std::lock_guard<std::mutex> lock(counting().mutex);
    return counting().objects;
}

Object create(Type ofType) {
    auto* const type = static_cast<Class>(ofType);
    auto* const header =
        static_cast<Header*>(std::calloc(1, sizeof(Header) + static_cast<std::size_t>(type->instanceSize)));
    if (header == nullptr) {
        fail("no memory");
    }
    header->references = 1;
    const id object = reinterpret_cast<id>(header + 1);
    object->isa = type;
    construct(object, type);
    const std::lock_guard<std::mutex> lock(counting().mutex);
    ++counting().objects;
    return object;
}

void destroy(Object object) {
    const auto self = static_cast<id>(object);
    destruct(self, self->isa);
    std::free(headerOf(self));
    const std::lock_guard<std::mutex> lock(counting().mutex);
    --counting().objects;
}

Object retain(Object object) {
    return objc_retain(static_cast<id>(object));
}

void release(Object object) {
    objc_release(static_cast<id>(object));
}

}  // namespace runtime

using namespace runtime;

// The entry points that Clang's "Objective-C Automatic Reference Counting" names under "Runtime support".
extern "C" {

id objc_retain(id object) {
    if (object == nullptr || isImmortal(object)) {
        return object;
    }
    if (isBlock(object)) {
        return static_cast<id>(_Block_copy(object));
    }
    const std::lock_guard<std::mutex> lock(counting().mutex);
    if (headerOf(object)->references <= 0) {
        fail(std::string("retain of a ") + object->isa->name + " that is being destroyed");
    }
    ++headerOf(object)->references;
    return object;
}

void objc_release(id object) {
    if (object == nullptr || isImmortal(object)) {
        return;
    }
    if (isBlock(object)) {
        _Block_release(object);
        return;
    }
    if (dropReference(object)) {
        const objc_method* const dealloc = findMethod(object->isa, "dealloc");
        reinterpret_cast<void (*)(id, Selector)>(dealloc->imp)(object, dealloc->selector);
    }
}

id objc_retainBlock(id block) {
    return static_cast<id>(_Block_copy(block));
}

id objc_autorelease(id object) {
    if (object != nullptr && !isImmortal(object)) {
        if (pool().depth == 0) {
            fail(std::string("autorelease of a ") + object->isa->name + " without a pool: it leaks");
        }
        pool().objects.push_back(object);
    }
    return object;
}

id objc_retainAutorelease(id object) {
    return objc_autorelease(objc_retain(object));
}

id objc_autoreleaseReturnValue(id object) {
    return objc_autorelease(object);
}

id objc_retainAutoreleaseReturnValue(id object) {
    return objc_retainAutorelease(object);
}

id objc_retainAutoreleasedReturnValue(id object) {
    return objc_retain(object);
}

void* objc_autoreleasePoolPush() {
    ++pool().depth;
    return reinterpret_cast<void*>(pool().objects.size() + 1);
}

void objc_autoreleasePoolPop(void* token) {
    std::vector<id>& objects = pool().objects;
    for (const std::size_t begin = reinterpret_cast<std::size_t>(token) - 1; objects.size() > begin;) {
        const id last = objects.back();
        objects.pop_back();
        objc_release(last);
    }
    --pool().depth;
    if (pool().depth == 0) {
        std::vector<id>().swap(objects);
    }
}

void objc_storeStrong(id* variable, id object) {
    const id old = *variable;
    *variable = objc_retain(object);
    objc_release(old);
}

id objc_initWeak(id* reference, id object) {
    const std::lock_guard<std::mutex> lock(counting().mutex);
    *reference = object;
    if (object != nullptr) {
        counting().weakReferences[object].insert(reference);
    }
    return object;
}

void objc_destroyWeak(id* reference) {
    const std::lock_guard<std::mutex> lock(counting().mutex);
    forget(reference);
}

id objc_storeWeak(id* reference, id object) {
    objc_destroyWeak(reference);
    return objc_initWeak(reference, object);
}

id objc_loadWeakRetained(id* reference) {
    const std::lock_guard<std::mutex> lock(counting().mutex);
    if (*reference != nullptr) {
        ++headerOf(*reference)->references;
    }
    return *reference;
}

void objc_copyWeak(id* to, id* from) {
    const id object = objc_loadWeakRetained(from);
    objc_initWeak(to, object);
    objc_release(object);
}

void objc_moveWeak(id* to, id* from) {
    objc_copyWeak(to, from);
    objc_destroyWeak(from);
}
}
