// Record types known to the stand-in and the record form (platform_ctl.h):
// records made from their bytes or from a module's message, with their keys.
//
// The store never holds a module's message: it packs it and keys it by the
// packed `index` sub-message (field 5). proto3 drops zero fields, so that
// packing is canonical and equal keys give equal bytes. For listing and
// subscriptions the keys are ordered by the values of their fields, which is
// what a person reading "show" expects.
#include <cstring>
#include <map>
#include <string>
#include <string_view>
#include <type_traits>

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

// Calls fn(field, value) for each key field of `idx` in field order, numbers
// widened to 64 bits (int64_t when signed, uint64_t when not), text as a
// string_view. No other kinds make keys.
template <typename Fn>
void each_key_field(const ProtobufCMessage *idx, Fn fn) {
    const ProtobufCMessageDescriptor *d = idx->descriptor;
    for (unsigned i = 0; i < d->n_fields; i++) {
        const ProtobufCFieldDescriptor *f = &d->fields[i];
        if (f->label == PROTOBUF_C_LABEL_REPEATED) continue;
        switch (f->type) {
            case PROTOBUF_C_TYPE_INT32:
            case PROTOBUF_C_TYPE_SINT32:
            case PROTOBUF_C_TYPE_SFIXED32:
            case PROTOBUF_C_TYPE_ENUM:
                fn(f, int64_t{field_at<int32_t>(idx, f)});
                break;
            case PROTOBUF_C_TYPE_UINT32:
            case PROTOBUF_C_TYPE_FIXED32:
                fn(f, uint64_t{field_at<uint32_t>(idx, f)});
                break;
            case PROTOBUF_C_TYPE_INT64:
            case PROTOBUF_C_TYPE_SINT64:
            case PROTOBUF_C_TYPE_SFIXED64:
                fn(f, field_at<int64_t>(idx, f));
                break;
            case PROTOBUF_C_TYPE_UINT64:
            case PROTOBUF_C_TYPE_FIXED64:
                fn(f, field_at<uint64_t>(idx, f));
                break;
            case PROTOBUF_C_TYPE_BOOL:
                fn(f, uint64_t{field_at<protobuf_c_boolean>(idx, f) ? 1U : 0U});
                break;
            case PROTOBUF_C_TYPE_STRING: {
                const char *s = field_at<const char *>(idx, f);
                fn(f, std::string_view(s != nullptr ? s : ""));
                break;
            }
            default:
                break;  // the packed key still tells such keys apart
        }
    }
}

// Eight big-endian bytes a number, signed values shifted so that byte order is
// numeric order; text ends with a zero byte.
std::string order_of(const ProtobufCMessage *idx) {
    std::string out;
    each_key_field(idx, [&](const ProtobufCFieldDescriptor *, auto v) {
        using V = decltype(v);
        if constexpr (std::is_same_v<V, std::string_view>) {
            out += v;
            out.push_back('\0');
        } else {
            auto u = static_cast<uint64_t>(v);
            if constexpr (std::is_signed_v<V>) u ^= uint64_t{1} << 63;
            for (int shift = 56; shift >= 0; shift -= 8)
                out.push_back(static_cast<char>(u >> shift));
        }
    });
    return out;
}

// "name=value,..." of the key fields, for keys a person can read.
std::string text_of(const ProtobufCMessage *idx) {
    std::string out;
    each_key_field(idx, [&](const ProtobufCFieldDescriptor *f, auto v) {
        if (!out.empty()) out += ',';
        out += f->name;
        out += '=';
        if constexpr (std::is_same_v<decltype(v), std::string_view>) {
            out += v;
        } else {
            out += std::to_string(v);
        }
    });
    return out;
}

// Unpacks `bytes` as `desc`, freed with the holder.
struct Unpacked {
    ProtobufCMessage *msg;
    Unpacked(const ProtobufCMessageDescriptor *desc, const std::string &bytes)
        : msg(protobuf_c_message_unpack(desc, nullptr, bytes.size(),
                                        reinterpret_cast<const uint8_t *>(bytes.data()))) {}
    ~Unpacked() {
        if (msg != nullptr) protobuf_c_message_free_unpacked(msg, nullptr);
    }
    Unpacked(const Unpacked &) = delete;
    Unpacked &operator=(const Unpacked &) = delete;
};

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

namespace {

// Fills the key of `rec` from its message `msg`.
void key_record(const ProtobufCMessage *msg, Record *rec) {
    const ProtobufCFieldDescriptor *f = index_field(msg->descriptor);
    const auto *idx = f != nullptr ? field_at<const ProtobufCMessage *>(msg, f) : nullptr;
    if (idx == nullptr) return;
    rec->key = pack(idx);
    if (!rec->key.empty()) rec->order = order_of(idx);
}

}  // namespace

Record record_of(int db, const ProtobufCMessage *msg, Form form) {
    Record rec{db, msg->descriptor->name, "", "", pack(msg), form};
    key_record(msg, &rec);
    return rec;
}

std::optional<Record> make_record(int db, const std::string &type, std::string packed, Form form) {
    const ProtobufCMessageDescriptor *d = find_descriptor(type);
    if (d == nullptr) return std::nullopt;
    Unpacked m(d, packed);
    if (m.msg == nullptr) return std::nullopt;
    Record rec{db, type, "", "", std::move(packed), form};
    key_record(m.msg, &rec);
    return rec;
}

std::string key_text(const Record &rec) {
    const ProtobufCMessageDescriptor *d = find_descriptor(rec.type);
    const ProtobufCFieldDescriptor *f = d != nullptr ? index_field(d) : nullptr;
    if (f == nullptr) return "";
    // An empty key decodes as the all-zero index, and is named as such.
    Unpacked idx(static_cast<const ProtobufCMessageDescriptor *>(f->descriptor), rec.key);
    return idx.msg != nullptr ? text_of(idx.msg) : "";
}

bool known_type(const std::string &type) {
    return platform::find_descriptor(type) != nullptr;
}

bool type_has_index(const std::string &type) {
    const ProtobufCMessageDescriptor *d = platform::find_descriptor(type);
    return d != nullptr && platform::index_field(d) != nullptr;
}

}  // namespace platform
