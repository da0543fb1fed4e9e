#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <vector>

#include "runtime/Abi.h"
#include "runtime/Runtime.h"

namespace runtime {
namespace {

constexpr std::uint64_t metaclassBit = 1;
constexpr std::uint64_t resolvedBit = std::uint64_t{1} << 32;

Class tinyStringClass = nullptr;

const objc_method* ownMethod(Class type, const char* name) {
    for (const objc_method_list* list = type->methods; list != nullptr; list = list->next) {
        for (int i = 0; i < list->count; ++i) {
            if (std::strcmp(list->methods[i].selector->name, name) == 0) {
                return &list->methods[i];
            }
        }
    }
    return nullptr;
}

// The compiler leaves the offsets of instance variables to be found here, as it doesn't know the superclass's
// size.
void layOut(Class type) {
    std::int64_t end = type->superclass == nullptr ? 0 : type->superclass->instanceSize;
    for (int i = 0; type->ivars != nullptr && i < type->ivars->count; ++i) {
        const objc_ivar& ivar = type->ivars->ivars[i];
        const std::int64_t alignment = std::int64_t{1} << (ivar.flags >> 3);
        end = (end + alignment - 1) / alignment * alignment;
        *ivar.offset = static_cast<std::int32_t>(end);
        end += ivar.size;
    }
    type->instanceSize = (end + 7) / 8 * 8;
}

void resolve(Class type) {
    if ((type->info & resolvedBit) != 0) {
        return;
    }
    type->info |= resolvedBit;
    Class const meta = type->isa;
    if (type->superclass != nullptr) {
        resolve(type->superclass);
        meta->superclass = type->superclass->isa;
    } else {
        meta->superclass = type;
    }
    layOut(type);
}

void addCategory(const std::vector<Class>& classes, const objc_category& category) {
    for (Class type : classes) {
        if (std::strcmp(type->name, category.className) == 0) {
            const auto prepend = [](Class to, objc_method_list* list) {
                if (list != nullptr) {
                    list->next = to->methods;
                    to->methods = list;
                }
            };
            prepend(type, category.methods);
            prepend(type->isa, category.classMethods);
        }
    }
}

template <typename Result>
Result answerNothing() {
    return Result{};
}

// A message to nil is answered with zero, in the register that the result is expected in.
Imp answerOfNil(Selector selector) {
    const bool real = selector->types != nullptr && (*selector->types == 'd' || *selector->types == 'f');
    return real ? reinterpret_cast<Imp>(&answerNothing<double>) : reinterpret_cast<Imp>(&answerNothing<long>);
}

Imp lookUp(id receiver, Class type, Selector selector) {
    if (const objc_method* const method = findMethod(type, selector->name)) {
        return method->imp;
    }
    for (Class c = type; c != nullptr; c = c->superclass) {
        if (c->forwarder != nullptr) {
            return reinterpret_cast<Forwarder>(c->forwarder)(receiver, selector);
        }
    }
    const bool meta = (type->info & metaclassBit) != 0;
    fail(std::string(meta ? "+[" : "-[") + type->name + " " + selector->name + "]: unrecognized selector");
}

}  // namespace

void fail(const std::string& why) {
    std::fprintf(stderr, "%s\n", why.c_str());
    std::abort();
}

Type classOf(Object object) {
    return isTinyString(object) ? tinyStringClass : static_cast<id>(object)->isa;
}

const char* nameOf(Type type) {
    return static_cast<Class>(type)->name;
}

const objc_method* findMethod(Type type, const char* name) {
    for (auto* c = static_cast<Class>(type); c != nullptr; c = c->superclass) {
        if (const objc_method* const method = ownMethod(c, name)) {
            return method;
        }
    }
    return nullptr;
}

void setForwarder(Type type, Forwarder forwarder) {
    static_cast<Class>(type)->forwarder = reinterpret_cast<void*>(forwarder);
}

bool isTinyString(const void* object) {
    return (reinterpret_cast<std::uintptr_t>(object) & 7) == 4;
}

void setTinyStringClass(Type type) {
    tinyStringClass = static_cast<Class>(type);
}

const char* signatureOf(const void* block) {
    constexpr int hasHelpers = 1 << 25;
    constexpr int hasSignature = 1 << 30;
    const auto* layout = static_cast<const BlockLayout*>(block);
    if ((layout->flags & hasSignature) == 0) {
        return nullptr;
    }
    const auto* words = static_cast<const char* const*>(layout->descriptor);
    return words[(layout->flags & hasHelpers) != 0 ? 4 : 2];
}

}  // namespace runtime

extern "C" {

extern objc_class protocolClass __asm__("._OBJC_CLASS_Protocol");

void __objc_load(objc_image* image) {
    // The sections' ends may be padded.
    std::vector<Class> classes;
    std::copy_if(image->classes, image->classesEnd, std::back_inserter(classes),
                 [](Class c) { return c != nullptr; });
    for (Class type : classes) {
        runtime::resolve(type);
    }
    for (objc_category* category = image->categories; category != image->categoriesEnd; ++category) {
        if (category->className != nullptr) {
            runtime::addCategory(classes, *category);
        }
    }
    for (objc_protocol* protocol = image->protocols; protocol != image->protocolsEnd; ++protocol) {
        protocol->isa = &protocolClass;
    }
}

objc_slot* objc_msg_lookup_sender(id* receiver, Selector selector, id /*sender*/) {
    thread_local objc_slot slot{};
    slot.method = *receiver == nullptr
                      ? runtime::answerOfNil(selector)
                      : runtime::lookUp(*receiver, static_cast<Class>(runtime::classOf(*receiver)), selector);
    return &slot;
}

Imp objc_msg_lookup_super(objc_super* super, Selector selector) {
    return runtime::lookUp(super->receiver, super->superclass, selector);
}

// Objective-C++ is only met by exceptions of C++ here.
int __gxx_personality_v0(int, int, std::uint64_t, void*, void*);
int __gnustep_objcxx_personality_v0(int version, int actions, std::uint64_t type, void* exception,
                                    void* context) {
    return __gxx_personality_v0(version, actions, type, exception, context);
}
}
