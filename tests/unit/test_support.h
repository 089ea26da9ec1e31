// Helpers shared by the unit tests: records packed to their wire form,
// database events built by hand, and a fresh module instance loaded from the
// shared object (so that every global starts at its load value).
#pragma once

#include <string>

#include <protobuf-c/protobuf-c.h>

#include "xn_mom.h"

namespace dpm_test {

// The wire form of a protobuf-c message.
std::string pack(const ProtobufCMessage *msg);

// A record unpacked from its wire form, freed with the holder; msg is null
// when the bytes do not decode.
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

// A database event as the client delivers it.
struct Event {
    xn_mom_msg_t msg{};
    xn_mom_entry_t entry{};
    static Event set(ProtobufCMessage *rec) {
        Event e;
        e.msg.cmd = XN_MOM_CMD_SET;
        e.msg.data = rec;
        return e;
    }
    static Event del(ProtobufCMessage *rec) {
        Event e;
        e.msg.cmd = XN_MOM_CMD_DEL;
        e.msg.data = rec;
        return e;
    }
    // Field-by-field form; fix_entry() must be called after the copy settles.
    static Event hmset(ProtobufCMessage *rec, int status = 0) {
        Event e;
        e.msg.cmd = XN_MOM_CMD_HMSET;
        e.entry.msg = rec;
        e.entry.status = status;
        return e;
    }
    static Event ds_request() {
        Event e;
        e.msg.cmd = XN_MOM_CMD_DS;
        return e;
    }
    static Event scan_over(int cmd = 0) {
        Event e;
        e.msg.cmd = cmd;
        e.msg.scan_over = XN_MOM_SCAN_OVER;
        return e;
    }
    static Event error(int err) {
        Event e;
        e.msg.err = static_cast<uint32_t>(err);
        return e;
    }
    xn_mom_msg_t *get() {
        if (msg.cmd == XN_MOM_CMD_HMSET && msg.data == nullptr && entry.msg != nullptr) {
            msg.data = &entry;
        }
        return &msg;
    }
};

// A fresh copy of libkel.dpm.dp.so, loaded under its own name so that its
// globals start at their load values. Unloaded when destroyed.
class ModuleInstance {
  public:
    ModuleInstance();
    ~ModuleInstance();
    ModuleInstance(const ModuleInstance &) = delete;
    ModuleInstance &operator=(const ModuleInstance &) = delete;
    // Calls ce_dpm_dlib_init with the stand-in's host handle (or null).
    int start(unsigned node_type = 1, unsigned devid = 1, bool null_handle = false);
    bool loaded() const { return handle_ != nullptr; }

  private:
    void *handle_ = nullptr;
    std::string path_;
};

// A scratch directory used as UDP_DPM_ROOT (created once per process).
const std::string &scratch_root();
// Write a file under the scratch root, creating directories ("etc/pktdbg/udp_dpm").
void write_root_file(const std::string &rel, const std::string &content);
void remove_root_file(const std::string &rel);

}  // namespace dpm_test
