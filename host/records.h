// Records as the scenario language writes them: protobuf text format parsed
// with the C++ generated code of the record schemas, packed to the wire form
// the stand-in stores, and printed back in a short one-line form that parses
// again (repeated numbers as lists).
#pragma once

#include <memory>
#include <string>

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

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

}  // namespace host
