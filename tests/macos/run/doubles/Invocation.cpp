#include "doubles/Invocation.h"

#include <ffi.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <utility>

#include "doubles/Objects.h"
#include "runtime/Abi.h"
#include "runtime/Runtime.h"

extern "C" {
void* _Block_copy(const void*);
void _Block_release(const void*);
extern void* _NSConcreteMallocBlock[32];
}

namespace doubles {
namespace {

bool isBlock(const std::string& type) {
    return type.compare(0, 2, "@?") == 0;
}

// Of @"NSData": NSData.
std::string classIn(const std::string& type) {
    if (type.size() < 4 || type[1] != '"') {
        runtime::fail("an encoding without a class: " + type);
    }
    return type.substr(2, type.size() - 3);
}

// Of @?<v@?c>: v@?c.
std::string signatureIn(const std::string& type) {
    if (type.size() < 4 || type[2] != '<') {
        runtime::fail("an encoding without the block's own: " + type);
    }
    return type.substr(3, type.size() - 4);
}

ffi_type* ffiTypeOf(const std::string& type) {
    switch (type[0]) {
        case 'v':
            return &ffi_type_void;
        case 'c':
            return &ffi_type_sint8;
        case 'B':
            return &ffi_type_uint8;
        case 'i':
            return &ffi_type_sint32;
        case 'q':
            return &ffi_type_sint64;
        case '@':
        case ':':
            return &ffi_type_pointer;
    }
    runtime::fail("an encoding that may not cross a connection: " + type);
}

struct Interface {
    explicit Interface(const std::vector<std::string>& types) {
        for (std::size_t i = 1; i < types.size(); ++i) {
            arguments.push_back(ffiTypeOf(types[i]));
        }
        if (ffi_prep_cif(&cif, FFI_DEFAULT_ABI, static_cast<unsigned>(arguments.size()), ffiTypeOf(types[0]),
                         arguments.data()) != FFI_OK) {
            runtime::fail("ffi_prep_cif");
        }
    }

    std::vector<ffi_type*> arguments;
    ffi_cif cif;
};

// An argument in memory, as wide as the widest.
union Value {
    std::int64_t number;
    std::int8_t narrow;
    std::int32_t middle;
    void* object;
};

std::optional<std::string> encode(const std::string& type, const void* at) {
    switch (type[0]) {
        case 'c':
        case 'B':
            return std::to_string(*static_cast<const std::int8_t*>(at));
        case 'i':
            return std::to_string(*static_cast<const std::int32_t*>(at));
        case 'q':
            return std::to_string(*static_cast<const std::int64_t*>(at));
    }
    void* const object = *static_cast<void* const*>(at);
    return object == nullptr ? std::nullopt : std::optional<std::string>(encodeObject(classIn(type), object));
}

// An object belongs to the caller.
Value decode(const std::string& type, const std::optional<std::string>& text) {
    Value value{};
    if (type[0] == '@') {
        value.object = text ? decodeObject(classIn(type), *text) : nullptr;
        return value;
    }
    value.number = std::strtoll(text.value_or("0").c_str(), nullptr, 10);
    if (type[0] == 'c') {
        value.narrow = static_cast<std::int8_t>(value.number);
    } else if (type[0] == 'i') {
        value.middle = static_cast<std::int32_t>(value.number);
    }
    return value;
}

const objc_protocol_method* findIn(const objc_protocol_method_list* list, const char* name) {
    for (int i = 0; list != nullptr && i < list->count; ++i) {
        if (std::strcmp(list->methods[i].selector->name, name) == 0) {
            return &list->methods[i];
        }
    }
    return nullptr;
}

const objc_protocol_method* findIn(const void* untyped, const char* name) {
    const auto* protocol = static_cast<const objc_protocol*>(untyped);
    const objc_protocol_method* const required = findIn(protocol->required, name);
    return required != nullptr ? required : findIn(protocol->optional, name);
}

// Plain encodings name no classes and no blocks' own encodings.
std::string plain(const std::string& type) {
    return isBlock(type) ? "@?" : type[0] == '@' ? "@" : type;
}

bool agree(const std::string& extended, const std::string& plainly) {
    const std::vector<std::string> a = typesIn(extended);
    const std::vector<std::string> b = typesIn(plainly);
    for (std::size_t i = 0; i < a.size() && i < b.size(); ++i) {
        if (plain(a[i]) != plain(b[i])) {
            return false;
        }
    }
    return a.size() == b.size();
}

// Calls `function` with what comes before the frame's own arguments, and those.
void call(void (*function)(), const std::vector<std::string>& types, std::vector<Value> values,
          const Frame& frame) {
    const std::size_t before = values.size();
    if (types.size() - 1 - before != frame.arguments.size()) {
        runtime::fail(frame.selector + ": a frame with another number of arguments");
    }
    for (std::size_t i = 0; i < frame.arguments.size(); ++i) {
        values.push_back(decode(types[i + 1 + before], frame.arguments[i]));
    }
    std::vector<void*> places;
    for (Value& value : values) {
        places.push_back(&value);
    }
    Interface interface(types);
    ffi_arg nothing = 0;
    ffi_call(&interface.cif, function, &nothing, places.data());
    for (std::size_t i = before; i < values.size(); ++i) {
        if (types[i + 1][0] == '@') {
            runtime::release(values[i].object);
        }
    }
}

// A block that sends its arguments back when it is called: made by hand, as its type is only known now.
struct ReplyBlock {
    struct State {
        std::function<void(Frame)> reply;
        Frame frame;
        std::vector<std::string> types;
        Interface interface;
        ffi_closure* closure = nullptr;
        bool called = false;
    };

    BlockLayout layout;
    State* state;

    static void invoke(ffi_cif*, void*, void** arguments, void* user) {
        State& state = *static_cast<State*>(user);
        if (std::exchange(state.called, true)) {
            runtime::fail("a reply block is called twice");
        }
        for (std::size_t i = 1; i + 1 < state.types.size(); ++i) {
            state.frame.arguments.push_back(encode(state.types[i + 1], arguments[i]));
        }
        state.reply(state.frame);
    }

    static void copy(void*, void*) {}

    static void dispose(void* block) {
        State* const state = static_cast<ReplyBlock*>(block)->state;
        ffi_closure_free(state->closure);
        delete state;
    }

    static void* make(const Frame& call, const std::string& signature, std::function<void(Frame)> reply) {
        struct Descriptor {
            unsigned long reserved, size;
            void (*copy)(void*, void*);
            void (*dispose)(void*);
        };
        static const Descriptor descriptor{0, sizeof(ReplyBlock), &ReplyBlock::copy, &ReplyBlock::dispose};
        constexpr int onHeapOnce = (1 << 24) | (1 << 25) | 1;
        const std::vector<std::string> types = typesIn(signature);
        auto* const state = new State{std::move(reply), {}, types, Interface(types)};
        state->frame.kind = Frame::Kind::Reply;
        state->frame.number = call.number;
        state->frame.selector = call.selector;
        state->frame.types = signature;
        void* code = nullptr;
        state->closure = static_cast<ffi_closure*>(ffi_closure_alloc(sizeof(ffi_closure), &code));
        ffi_prep_closure_loc(state->closure, &state->interface.cif, &ReplyBlock::invoke, state, code);
        auto* const block = static_cast<ReplyBlock*>(std::malloc(sizeof(ReplyBlock)));
        block->layout = {_NSConcreteMallocBlock, onHeapOnce, 0, reinterpret_cast<void (*)()>(code),
                         const_cast<Descriptor*>(&descriptor)};
        block->state = state;
        return block;
    }
};

// What a proxy's caller runs into: one for each method of each protocol, for good.
struct Forwarding {
    const objc_protocol_method* method;
    std::vector<std::string> types;
    Interface interface;
    Send send;

    static void invoke(ffi_cif*, void*, void** arguments, void* user) {
        const Forwarding& self = *static_cast<const Forwarding*>(user);
        Frame frame;
        frame.selector = self.method->selector->name;
        frame.types = self.method->types;
        void* block = nullptr;
        for (std::size_t i = 3; i < self.types.size(); ++i) {
            if (!isBlock(self.types[i])) {
                frame.arguments.push_back(encode(self.types[i], arguments[i - 1]));
                continue;
            }
            block = *static_cast<void**>(arguments[i - 1]);
            const char* const signature = runtime::signatureOf(block);
            if (signature == nullptr || typesIn(signature) != typesIn(signatureIn(self.types[i]))) {
                runtime::fail(frame.selector + ": a reply block of other types than the protocol's: " +
                              (signature == nullptr ? "none" : signature));
            }
        }
        self.send(*static_cast<void**>(arguments[0]), std::move(frame), block);
    }
};

}  // namespace

std::vector<std::string> typesIn(const std::string& encoding) {
    std::vector<std::string> types;
    for (std::size_t at = 0; at < encoding.size();) {
        const std::size_t begin = at++;
        if (encoding[begin] == '@' && at < encoding.size()) {
            if (encoding[at] == '"') {
                at = encoding.find('"', at + 1) + 1;
            } else if (encoding[at] == '?') {
                ++at;
                int depth = 0;
                while (at < encoding.size() && (encoding[at] == '<' || depth > 0)) {
                    depth += encoding[at] == '<' ? 1 : encoding[at] == '>' ? -1 : 0;
                    ++at;
                }
            }
        }
        types.push_back(encoding.substr(begin, at - begin));
        while (at < encoding.size() && encoding[at] >= '0' && encoding[at] <= '9') {
            ++at;
        }
    }
    return types;
}

void (*forwardingOf(void* protocol, const objc_selector* selector, Send send))() {
    static std::mutex mutex;
    // Named here as well as in the closure's own memory, where the leak sanitizer does not look.
    static auto* const known =
        new std::map<const objc_protocol_method*, std::pair<void (*)(), const Forwarding*>>;
    if (protocol == nullptr) {
        runtime::fail(std::string("a proxy without an interface is sent ") + selector->name);
    }
    const objc_protocol_method* const method = findIn(protocol, selector->name);
    if (method == nullptr) {
        runtime::fail(std::string("the remote interface has no ") + selector->name);
    }
    if (selector->types == nullptr || !agree(method->types, selector->types)) {
        runtime::fail(std::string(selector->name) + " is sent with other types than the protocol's");
    }
    const std::lock_guard<std::mutex> lock(mutex);
    auto& entry = (*known)[method];
    if (entry.first == nullptr) {
        const std::vector<std::string> types = typesIn(method->types);
        auto* const forwarding = new Forwarding{method, types, Interface(types), send};
        void* code = nullptr;
        auto* const closure = static_cast<ffi_closure*>(ffi_closure_alloc(sizeof(ffi_closure), &code));
        ffi_prep_closure_loc(closure, &forwarding->interface.cif, &Forwarding::invoke, forwarding, code);
        entry = {reinterpret_cast<void (*)()>(code), forwarding};
    }
    return entry.first;
}

void callReply(void* block, const Frame& reply) {
    Value self{};
    self.object = block;
    call(static_cast<BlockLayout*>(block)->invoke, typesIn(reply.types), {self}, reply);
}

void callMethod(void* target, void* protocol, const Frame& frame, std::function<void(Frame)> reply) {
    const auto refuse = [&](const char* why) {
        std::fprintf(stderr, "NSXPCConnection: %s: %s; the call is dropped\n", frame.selector.c_str(), why);
    };
    if (target == nullptr || protocol == nullptr) {
        return refuse("nothing is exported");
    }
    const objc_protocol_method* const declared = findIn(protocol, frame.selector.c_str());
    if (declared == nullptr || frame.types != declared->types) {
        return refuse(declared == nullptr ? "not in the exported interface"
                                          : "declared with other types here");
    }
    const objc_method* const method = runtime::findMethod(runtime::classOf(target), frame.selector.c_str());
    if (method == nullptr) {
        return refuse("not implemented");
    }
    const std::vector<std::string> types = typesIn(declared->types);
    std::vector<Value> before(2);
    before[0].object = target;
    before[1].object = const_cast<objc_selector*>(method->selector);
    if (types.size() == 4 && isBlock(types[3])) {
        before.emplace_back().object = ReplyBlock::make(frame, signatureIn(types[3]), std::move(reply));
    }
    call(method->imp, types, before, frame);
    if (before.size() == 3) {
        _Block_release(before[2].object);
    }
}

void checkConformance(void* target, void* untyped) {
    const auto* protocol = static_cast<const objc_protocol*>(untyped);
    void* const type = runtime::classOf(target);
    const auto check = [&](const objc_protocol_method_list* list, bool required) {
        for (int i = 0; list != nullptr && i < list->count; ++i) {
            const char* const name = list->methods[i].selector->name;
            const objc_method* const method = runtime::findMethod(type, name);
            if (method == nullptr ? required : !agree(list->methods[i].types, method->types)) {
                runtime::fail(std::string(runtime::nameOf(type)) + " does not implement " + name + " as " +
                              protocol->name + " declares it");
            }
        }
    };
    check(protocol->required, true);
    check(protocol->optional, false);
}

}  // namespace doubles
