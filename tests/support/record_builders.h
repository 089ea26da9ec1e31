// Records for tests and benchmarks, built from their text form (the host's,
// record_text.h): the wire form of a record of a named type, the same as a
// protobuf-c message owned by its holder, and printf-style text for records
// whose fields come from a table.
#pragma once

#include <cstdio>
#include <string>

#include <protobuf-c/protobuf-c.h>

#include "record_text.h"

namespace dpm_test {

// printf-style text.
template <class... A>
std::string fmt(const char *format, A... args) {
    char buf[1024];
    std::snprintf(buf, sizeof buf, format, args...);
    return buf;
}

// The wire form of a record of `type` ("u_cluster.kel_uc_balance") given in
// text form. host::ScriptError for an unknown type or text that does not parse.
inline std::string packed(const std::string &type, const std::string &text) {
    return host::parse_record(host::record_type(type), text)->SerializeAsString();
}

// A protobuf-c record unpacked from its wire form, freed with the holder; msg
// is null when the bytes do not decode.
template <class T>
struct Unpacked {
    T *msg = nullptr;
    Unpacked(const ProtobufCMessageDescriptor *d, const std::string &packed) {
        msg = reinterpret_cast<T *>(protobuf_c_message_unpack(
            d, nullptr, packed.size(), reinterpret_cast<const uint8_t *>(packed.data())));
    }
    ~Unpacked() {
        if (msg != nullptr) protobuf_c_message_free_unpacked(&msg->base, nullptr);
    }
    Unpacked(const Unpacked &) = delete;
    Unpacked &operator=(const Unpacked &) = delete;
    T *operator->() const { return msg; }
};

// A protobuf-c record of the type `d` describes, built from its text form.
template <class T>
struct FromText : Unpacked<T> {
    FromText(const ProtobufCMessageDescriptor *d, const std::string &text)
        : Unpacked<T>(d, packed(d->name, text)) {}
    ProtobufCMessage *base() const { return &this->msg->base; }
};

}  // namespace dpm_test
