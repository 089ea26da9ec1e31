// The text form of records (see record_text.h).
#include "record_text.h"

#include <google/protobuf/io/tokenizer.h>
#include <google/protobuf/text_format.h>

#include "p_dev.pb.h"
#include "s_intf.pb.h"
#include "u_cluster.pb.h"
#include "lexer.h"

namespace host {

namespace pb = google::protobuf;

namespace {

// The generated code sits in a static library: naming one descriptor of each
// package pulls its object in, which registers the package in the generated pool.
void link_record_packages() {
    static const bool linked = [] {
        return u_cluster::kel_uc_balance::descriptor() != nullptr &&
               p_dev::dtm_route_info::descriptor() != nullptr &&
               s_intf::evt_mod_alloc::descriptor() != nullptr;
    }();
    (void)linked;
}

// Keeps the parser's complaints for our own message instead of the library's
// log on standard error.
class FirstError : public pb::io::ErrorCollector {
  public:
    void AddError(int line, pb::io::ColumnNumber column, const std::string &message) override {
        if (!seen_) {
            seen_ = true;
            // Lines count from the record's opening brace.
            text_ = "line " + std::to_string(line + 1) + " column " + std::to_string(column + 1) +
                    " of the record: " + message;
        }
    }
    void AddWarning(int, pb::io::ColumnNumber, const std::string &) override {}
    bool seen() const { return seen_; }
    const std::string &text() const { return text_; }

  private:
    bool seen_ = false;
    std::string text_;
};

void append_value(const pb::Message &m, const pb::FieldDescriptor *f, int index, std::string *out);

void append_fields(const pb::Message &m, std::string *out) {
    std::vector<const pb::FieldDescriptor *> fields;
    m.GetReflection()->ListFields(m, &fields);
    for (const auto *f : fields) {
        if (!out->empty() && out->back() != ' ') *out += ' ';
        if (!f->is_repeated()) {
            append_value(m, f, -1, out);
            continue;
        }
        int n = m.GetReflection()->FieldSize(m, f);
        if (f->cpp_type() == pb::FieldDescriptor::CPPTYPE_MESSAGE) {
            for (int i = 0; i < n; ++i) {
                if (i > 0) *out += ' ';
                append_value(m, f, i, out);
            }
            continue;
        }
        *out += f->name() + ": [";
        for (int i = 0; i < n; ++i) {
            if (i > 0) *out += ", ";
            std::string v;
            pb::TextFormat::PrintFieldValueToString(m, f, i, &v);
            *out += v;
        }
        *out += ']';
    }
}

void append_value(const pb::Message &m, const pb::FieldDescriptor *f, int index, std::string *out) {
    if (f->cpp_type() == pb::FieldDescriptor::CPPTYPE_MESSAGE) {
        const pb::Reflection *r = m.GetReflection();
        const pb::Message &sub =
            index < 0 ? r->GetMessage(m, f) : r->GetRepeatedMessage(m, f, index);
        std::string inner;
        append_fields(sub, &inner);
        *out += f->name() + (inner.empty() ? " { }" : " { " + inner + " }");
        return;
    }
    std::string v;
    pb::TextFormat::PrintFieldValueToString(m, f, index, &v);
    *out += f->name() + ": " + v;
}

}  // namespace

const pb::Descriptor *record_type(const std::string &name) {
    link_record_packages();
    const pb::Descriptor *d = pb::DescriptorPool::generated_pool()->FindMessageTypeByName(name);
    if (d == nullptr) throw ScriptError("unknown record type '" + name + "'");
    return d;
}

std::unique_ptr<pb::Message> new_record(const pb::Descriptor *d) {
    return std::unique_ptr<pb::Message>(
        pb::MessageFactory::generated_factory()->GetPrototype(d)->New());
}

std::unique_ptr<pb::Message> parse_record(const pb::Descriptor *d, const std::string &text) {
    auto msg = new_record(d);
    FirstError errors;
    pb::TextFormat::Parser parser;
    parser.RecordErrorsTo(&errors);
    if (!parser.ParseFromString(text, msg.get())) {
        throw ScriptError("malformed " + d->full_name() + " record: " +
                          (errors.seen() ? errors.text() : std::string("cannot parse")));
    }
    return msg;
}

std::unique_ptr<pb::Message> unpack_record(const pb::Descriptor *d, const std::string &packed) {
    auto msg = new_record(d);
    if (!msg->ParseFromString(packed)) return nullptr;
    return msg;
}

std::string short_text(const pb::Message &m) {
    std::string out;
    append_fields(m, &out);
    return out;
}

std::string stored_text(const platform::Record &rec) {
    const pb::Descriptor *d = pb::DescriptorPool::generated_pool()->FindMessageTypeByName(rec.type);
    std::unique_ptr<pb::Message> m = d != nullptr ? unpack_record(d, rec.packed) : nullptr;
    if (m == nullptr) {
        return rec.type + " <" + std::to_string(rec.packed.size()) + " bytes that do not decode>";
    }
    std::string t = short_text(*m);
    return rec.type + (t.empty() ? " { }" : " { " + t + " }");
}

void keep_record_text() {
    platform::set_record_text([](const std::string &type, const std::string &packed) {
        const pb::Descriptor *d = pb::DescriptorPool::generated_pool()->FindMessageTypeByName(type);
        std::unique_ptr<pb::Message> m = d != nullptr ? unpack_record(d, packed) : nullptr;
        return m != nullptr ? short_text(*m) : std::string();
    });
}

}  // namespace host
