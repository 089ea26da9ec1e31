// A protobuf-c record unpacked from its wire form (shared with the oracle).
#pragma once

#include <string>

#include <protobuf-c/protobuf-c.h>

namespace dpm_test {

// Freed with the holder; msg is null when the bytes do not decode.
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

}  // namespace dpm_test
