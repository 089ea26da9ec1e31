// Arguments the scenario commands share (see arguments.h).
#include "arguments.h"

#include "record_text.h"

namespace host {

std::string db_name(int db) {
    switch (db) {
        case 0:
            return "ASIC_DB";
        case 3:
            return "LOCAL_DB";
        case 8:
            return "UDP_DB";
        case 14:
            return "TOPO_DB";
        default:
            return "db " + std::to_string(db);
    }
}

RecordArg record_arg(Cursor &c, bool end) {
    RecordArg r;
    r.type = c.word("record type");
    r.desc = record_type(r.type);
    r.msg = parse_record(r.desc, c.record("record"));
    if (end) c.end();
    if (!r.msg->SerializeToString(&r.packed)) {
        throw ScriptError("cannot pack the " + r.type + " record");
    }
    return r;
}

int32_t int_arg(Cursor &c, const char *what) {
    return static_cast<int32_t>(parse_int(c.word(what), INT32_MIN, INT32_MAX, what));
}

uint32_t uint_arg(Cursor &c, const char *what) {
    return static_cast<uint32_t>(parse_int(c.word(what), 0, UINT32_MAX, what));
}

std::optional<uint32_t> value_or_fail(Cursor &c, const char *what) {
    std::string w = c.word(what);
    if (w == "fail") return std::nullopt;
    return static_cast<uint32_t>(parse_int(w, 0, UINT32_MAX, what));
}

}  // namespace host
