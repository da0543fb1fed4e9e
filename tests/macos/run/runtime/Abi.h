#pragma once

#include <cstdint>

// The structures that Clang lays down in an object file for -fobjc-runtime=gnustep-2.0 on a 64-bit machine,
// read off its output (clang -S -emit-llvm). Test-only: nothing of this is part of the product.

extern "C" {

struct objc_object;
struct objc_class;
using id = objc_object*;
using Class = objc_class*;
using Imp = void (*)();

struct objc_object {
    Class isa;
};

struct objc_selector {
    const char* name;
    const char* types;
};
using Selector = const objc_selector*;

struct objc_method {
    Imp imp;
    Selector selector;
    const char* types;  ///< extended encoding
};
struct objc_method_list {
    objc_method_list* next;
    int count;
    std::int64_t size;
    objc_method methods[1];
};

struct objc_ivar {
    const char* name;
    const char* type;
    std::int32_t* offset;
    std::uint32_t size;
    std::uint32_t flags;  ///< from bit 3 on, the alignment as a power of two
};
struct objc_ivar_list {
    int count;
    std::int64_t size;
    objc_ivar ivars[1];
};

struct objc_protocol_method {
    Selector selector;
    const char* types;  ///< extended encoding
};
struct objc_protocol_method_list {
    int count;
    int size;
    objc_protocol_method methods[1];
};
struct objc_protocol_list;
struct objc_protocol {
    Class isa;
    const char* name;
    objc_protocol_list* protocols;
    objc_protocol_method_list* required;
    objc_protocol_method_list* requiredOfClass;
    objc_protocol_method_list* optional;
    objc_protocol_method_list* optionalOfClass;
    void* properties[4];
};
struct objc_protocol_list {
    objc_protocol_list* next;
    std::int64_t count;
    objc_protocol* protocols[1];
};

struct objc_class {
    Class isa;
    Class superclass;
    const char* name;
    std::int64_t version;
    std::uint64_t info;  ///< bit 0: a metaclass
    std::int64_t instanceSize;
    objc_ivar_list* ivars;
    objc_method_list* methods;
    void* forwarder;  ///< the compiler's place for a dispatch table, of which this runtime has none
    Imp cxxDestruct;
    Imp cxxConstruct;
    Class subclasses;
    Class siblings;
    objc_protocol_list* protocols;
    void* extra;
    std::int64_t abiVersion;
    void* properties;
};

struct objc_category {
    const char* name;
    const char* className;
    objc_method_list* methods;
    objc_method_list* classMethods;
    objc_protocol_list* protocols;
    void* properties[2];
};

/// What each image hands to __objc_load: the bounds of its sections.
struct objc_image {
    std::uint64_t version;
    objc_selector *selectors, *selectorsEnd;
    Class *classes, *classesEnd;
    Class *classRefs, *classRefsEnd;
    objc_category *categories, *categoriesEnd;
    objc_protocol *protocols, *protocolsEnd;
};

/// What a call without a lookup table goes through: of the slot, only `method` is read.
struct objc_slot {
    void* unused[3];
    int version;
    Imp method;
};
struct objc_super {
    id receiver;
    Class superclass;
};

/// A block, by Clang's "Block Implementation Specification".
struct BlockDescriptor {
    unsigned long reserved;
    unsigned long size;
};
struct BlockLayout {
    void* isa;
    int flags;
    int reserved;
    void (*invoke)();
    void* descriptor;
};
}
