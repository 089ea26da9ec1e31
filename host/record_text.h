// The text form of records: protobuf text format, as the scenario language
// writes them, parsed with the C++ generated code of the record schemas and
// packed to the wire form the stand-in stores; printed back in a short
// one-line form that parses again (repeated numbers as lists).
#pragma once

#include <memory>
#include <string>

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

#include "platform_ctl.h"

namespace host {

// The message type of a full record name ("u_cluster.kel_uc_balance").
// ScriptError when there is no such type.
const google::protobuf::Descriptor *record_type(const std::string &name);

// A fresh empty message of `d`.
std::unique_ptr<google::protobuf::Message> new_record(const google::protobuf::Descriptor *d);

// Parse text format (without the outer braces). ScriptError carries the first
// parser message with its line and column inside the record.
std::unique_ptr<google::protobuf::Message> parse_record(const google::protobuf::Descriptor *d,
                                                        const std::string &text);

// Unpack stored bytes; null when they do not decode.
std::unique_ptr<google::protobuf::Message> unpack_record(const google::protobuf::Descriptor *d,
                                                         const std::string &packed);

// One line: "index { modid: 5 } local_modid: 3 permit_modid: [1, 0, 0]".
std::string short_text(const google::protobuf::Message &m);

// "TYPE { short text }", or a note that the bytes do not decode.
std::string stored_text(const platform::Record &rec);

// Has the store keep each record's short text beside its bytes (empty when
// they do not decode), for people reading a Redis store with redis-cli.
void keep_record_text();

}  // namespace host
