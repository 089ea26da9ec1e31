// Record types known to the stand-in and the keys of their records.
//
// The store never holds a module's message: it packs it and keys it by the
// packed `index` sub-message (field 5). proto3 drops zero fields, so that
// packing is canonical and equal keys give equal bytes. For listing and
// subscriptions the keys are ordered by the values of their fields, which is
// what a person reading "show" expects.
#include <cstring>
#include <map>
#include <cstddef>
#include <string>
#include <vector>

#include "p_dev.pb-c.h"
#include "platform_state.h"
#include "s_intf.pb-c.h"
#include "u_cluster.pb-c.h"

namespace platform {
namespace {

const ProtobufCMessageDescriptor *const kDescriptors[] = {
    &p_dev__card_info_index__descriptor,       &p_dev__card_static_info_index__descriptor,
    &p_dev__vsl_port_index__descriptor,        &p_dev__dtm_fib_info__descriptor,
    &p_dev__dtm_mfib_info__descriptor,         &p_dev__dtm_route_info__descriptor,
    &p_dev__dtm_fiap_route_info__descriptor,   &p_dev__vsl_local_link__descriptor,
    &p_dev__lib_card_role__descriptor,         &p_dev__dp_lib_grole__descriptor,
    &p_dev__card_static_info__descriptor,      &p_dev__card_info__descriptor,
    &s_intf__mod_alloc_index__descriptor,      &s_intf__ddm_fuid_info__descriptor,
    &s_intf__evt_mod_alloc__descriptor,        &u_cluster__modid_idx__descriptor,
    &u_cluster__apid_idx__descriptor,          &u_cluster__mod_apid_idx__descriptor,
    &u_cluster__chip_idx__descriptor,          &u_cluster__dev_idx__descriptor,
    &u_cluster__vslport__descriptor,           &u_cluster__kel_dev_fwdstate__descriptor,
    &u_cluster__vsl_chip_fwdstate__descriptor, &u_cluster__kel_uc_balance__descriptor,
    &u_cluster__vsl_srcmod_igr__descriptor,    &u_cluster__vsl_srcmod_egr__descriptor,
    &u_cluster__vsl_ap_member__descriptor,     &u_cluster__mainmc_vlan__descriptor,
    &u_cluster__mainmc_vlan_st__descriptor,
};

const std::map<std::string, const ProtobufCMessageDescriptor *> &registry() {
    static const auto reg = [] {
        std::map<std::string, const ProtobufCMessageDescriptor *> m;
        for (const auto *d : kDescriptors) m.emplace(d->name, d);
        return m;
    }();
    return reg;
}

// The `index` field of a type, or null.
const ProtobufCFieldDescriptor *index_field(const ProtobufCMessageDescriptor *desc) {
    const ProtobufCFieldDescriptor *f = protobuf_c_message_descriptor_get_field(desc, 5);
    if (f == nullptr || f->type != PROTOBUF_C_TYPE_MESSAGE ||
        f->label == PROTOBUF_C_LABEL_REPEATED || std::strcmp(f->name, "index") != 0) {
        return nullptr;
    }
    return f;
}

template <typename T>
T field_at(const ProtobufCMessage *msg, const ProtobufCFieldDescriptor *f) {
    T v;
    // T is a pointer for message and string fields: copying the pointer is meant.
    std::memcpy(&v, reinterpret_cast<const char *>(msg) + f->offset,
                sizeof(T));  // NOLINT(bugprone-sizeof-expression)
    return v;
}

// Eight big-endian bytes, signed values shifted so that byte order is numeric order.
void append_u64(std::string *out, uint64_t v) {
    for (int shift = 56; shift >= 0; shift -= 8) out->push_back(static_cast<char>(v >> shift));
}
void append_i64(std::string *out, int64_t v) {
    append_u64(out, static_cast<uint64_t>(v) ^ (uint64_t{1} << 63));
}

std::string order_of(const ProtobufCMessage *idx) {
    std::string out;
    const ProtobufCMessageDescriptor *d = idx->descriptor;
    for (unsigned i = 0; i < d->n_fields; i++) {
        const ProtobufCFieldDescriptor *f = &d->fields[i];
        if (f->label == PROTOBUF_C_LABEL_REPEATED) continue;
        switch (f->type) {
            case PROTOBUF_C_TYPE_INT32:
            case PROTOBUF_C_TYPE_SINT32:
            case PROTOBUF_C_TYPE_SFIXED32:
            case PROTOBUF_C_TYPE_ENUM:
                append_i64(&out, field_at<int32_t>(idx, f));
                break;
            case PROTOBUF_C_TYPE_UINT32:
            case PROTOBUF_C_TYPE_FIXED32:
                append_u64(&out, field_at<uint32_t>(idx, f));
                break;
            case PROTOBUF_C_TYPE_INT64:
            case PROTOBUF_C_TYPE_SINT64:
            case PROTOBUF_C_TYPE_SFIXED64:
                append_i64(&out, field_at<int64_t>(idx, f));
                break;
            case PROTOBUF_C_TYPE_UINT64:
            case PROTOBUF_C_TYPE_FIXED64:
                append_u64(&out, field_at<uint64_t>(idx, f));
                break;
            case PROTOBUF_C_TYPE_BOOL:
                append_u64(&out, field_at<protobuf_c_boolean>(idx, f) ? 1 : 0);
                break;
            case PROTOBUF_C_TYPE_STRING: {
                const char *s = field_at<const char *>(idx, f);
                if (s != nullptr) out += s;
                out.push_back('\0');
                break;
            }
            default:
                break;  // no other kinds of key fields; the packed key still tells keys apart
        }
    }
    return out;
}

// "name=value,..." of the key fields, for keys a person can read.
std::string text_of(const ProtobufCMessage *idx) {
    std::string out;
    const ProtobufCMessageDescriptor *d = idx->descriptor;
    for (unsigned i = 0; i < d->n_fields; i++) {
        const ProtobufCFieldDescriptor *f = &d->fields[i];
        if (f->label == PROTOBUF_C_LABEL_REPEATED) continue;
        std::string v;
        switch (f->type) {
            case PROTOBUF_C_TYPE_INT32:
            case PROTOBUF_C_TYPE_SINT32:
            case PROTOBUF_C_TYPE_SFIXED32:
            case PROTOBUF_C_TYPE_ENUM:
                v = std::to_string(field_at<int32_t>(idx, f));
                break;
            case PROTOBUF_C_TYPE_UINT32:
            case PROTOBUF_C_TYPE_FIXED32:
                v = std::to_string(field_at<uint32_t>(idx, f));
                break;
            case PROTOBUF_C_TYPE_STRING: {
                const char *s = field_at<const char *>(idx, f);
                v = s != nullptr ? s : "";
                break;
            }
            default:
                continue;
        }
        if (!out.empty()) out += ',';
        out += std::string(f->name) + "=" + v;
    }
    return out;
}

}  // namespace

const ProtobufCMessageDescriptor *find_descriptor(const std::string &type) {
    const auto &reg = registry();
    auto it = reg.find(type);
    return it == reg.end() ? nullptr : it->second;
}

std::string pack(const ProtobufCMessage *msg) {
    std::string out(protobuf_c_message_get_packed_size(msg), '\0');
    if (!out.empty()) protobuf_c_message_pack(msg, reinterpret_cast<uint8_t *>(out.data()));
    return out;
}

RecordKey key_of(const ProtobufCMessage *msg) {
    RecordKey k;
    const ProtobufCFieldDescriptor *f = index_field(msg->descriptor);
    if (f == nullptr) return k;
    const auto *idx = field_at<const ProtobufCMessage *>(msg, f);
    if (idx == nullptr) {
        // No index is the all-zero key; name it as such.
        const auto *idesc = static_cast<const ProtobufCMessageDescriptor *>(f->descriptor);
        std::vector<std::max_align_t> zero(idesc->sizeof_message / sizeof(std::max_align_t) + 1);
        auto *blank = reinterpret_cast<ProtobufCMessage *>(zero.data());
        protobuf_c_message_init(idesc, blank);
        k.text = text_of(blank);
        return k;
    }
    k.text = text_of(idx);
    k.key = pack(idx);
    if (!k.key.empty()) k.order = order_of(idx);
    return k;
}

bool key_of_packed(const std::string &type, const std::string &packed, RecordKey *out) {
    const ProtobufCMessageDescriptor *d = find_descriptor(type);
    if (d == nullptr) return false;
    ProtobufCMessage *m = protobuf_c_message_unpack(
        d, nullptr, packed.size(), reinterpret_cast<const uint8_t *>(packed.data()));
    if (m == nullptr) return false;
    *out = key_of(m);
    protobuf_c_message_free_unpacked(m, nullptr);
    return true;
}

bool known_type(const std::string &type) {
    return platform::find_descriptor(type) != nullptr;
}

bool type_has_index(const std::string &type) {
    const ProtobufCMessageDescriptor *d = platform::find_descriptor(type);
    return d != nullptr && platform::index_field(d) != nullptr;
}

}  // namespace platform
