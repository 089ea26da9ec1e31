// Arguments the scenario commands share: database names, records with their
// wire form, numbers.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

#include "lexer.h"
#include "platform_ctl.h"

namespace host {

// "ASIC_DB", "LOCAL_DB", "UDP_DB", "TOPO_DB" or "db N".
std::string db_name(int db);

// A parsed record argument, with its wire form for the stand-in.
struct RecordArg {
    std::string type;
    const google::protobuf::Descriptor *desc;
    std::unique_ptr<google::protobuf::Message> msg;
    std::string packed;
};

// "TYPE {RECORD}" (and nothing after it when `end`).
RecordArg record_arg(Cursor &c, bool end = true);

int32_t int_arg(Cursor &c, const char *what);
uint32_t uint_arg(Cursor &c, const char *what);
// "N" or "fail" (the lookup or read fails).
std::optional<uint32_t> value_or_fail(Cursor &c, const char *what);

}  // namespace host
