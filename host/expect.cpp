// Expectations: records, counts, log lines, output and exits, each checked
// once or, with "within DURATION", again and again (running the loop and
// taking in other processes' events) until it holds or the time is up.
#include <algorithm>
#include <chrono>

#include <google/protobuf/util/message_differencer.h>

#include "arguments.h"
#include "exit_watch.h"
#include "host.h"
#include "output_capture.h"
#include "record_text.h"

namespace host {

namespace pb = google::protobuf;

namespace {

// "expect record" (that key holds exactly that record) or "expect absent".
void expect_record(bool absent, int db, const RecordArg &r) {
    auto stored = platform::db_get(db, r.type, r.packed);
    std::string want = r.type + " { " + short_text(*r.msg) + " }";
    if (absent) {
        if (stored) {
            throw ExpectFailure("expected no record with the key of " + want + " in " +
                                db_name(db) + ", got " + stored_text(*stored));
        }
        return;
    }
    if (!stored) {
        throw ExpectFailure("expected " + want + " in " + db_name(db) + ", got no record");
    }
    auto got = unpack_record(r.desc, stored->packed);
    if (got == nullptr || !pb::util::MessageDifferencer::Equals(*r.msg, *got)) {
        throw ExpectFailure("expected " + want + " in " + db_name(db) + ", got " +
                            stored_text(*stored));
    }
}

// The previous output in a failure message: one line quoted, several indented.
std::string shown_output(std::string out) {
    while (!out.empty() && out.back() == '\n') out.pop_back();
    if (out.empty()) return "no output";
    if (out.find('\n') == std::string::npos) return "\"" + out + "\"";
    std::string block;
    size_t b = 0;
    while (b <= out.size()) {
        size_t e = out.find('\n', b);
        if (e == std::string::npos) e = out.size();
        block += "\n  | " + out.substr(b, e - b);
        b = e + 1;
    }
    return "output:" + block;
}

// A text with its newlines and tabs shown as escapes, as a script writes them.
std::string escaped(const std::string &text) {
    std::string out;
    for (char ch : text) out += ch == '\n' ? "\\n" : ch == '\t' ? "\\t" : std::string(1, ch);
    return out;
}

}  // namespace

void Host::check_within(Cursor &c, const std::function<void()> &check) {
    auto w = c.try_word();
    if (!w) return check();
    if (*w != "within") throw ScriptError("expected 'within DURATION', found '" + *w + "'");
    uint64_t us = parse_duration_us(c.word("duration"));
    c.end();
    auto deadline = std::chrono::steady_clock::now() + std::chrono::microseconds(us);
    for (;;) {
        try {
            check();
            return;
        } catch (const ExpectFailure &) {
            if (std::chrono::steady_clock::now() >= deadline) throw;
        }
        // Another process may be the one to bring it about: take in its
        // events (waiting a little for them) and run the loop again.
        settle();
        platform::db_wait(10);
        settle();
        flush_module_stdout();
    }
}

void Host::do_expect(Cursor &c) {
    std::string what = c.word("expectation");
    if (what == "record" || what == "absent") {
        int db = parse_db(c.word("database"));
        RecordArg r = record_arg(c, false);
        check_within(c, [&] { expect_record(what == "absent", db, r); });
    } else if (what == "count") {
        int db = parse_db(c.word("database"));
        std::string type = c.word("record type");
        record_type(type);
        size_t n = static_cast<size_t>(parse_int(c.word("count"), 0, INT32_MAX, "count"));
        check_within(c, [&] {
            size_t got = platform::db_records(db, type).size();
            if (got != n) {
                throw ExpectFailure("expected " + std::to_string(n) + " " + type + " records in " +
                                    db_name(db) + ", got " + std::to_string(got));
            }
        });
    } else if (what == "log" || what == "no-log") {
        // "[func] TEXT" narrows the match to lines logged under that function
        // name (many of the module's lines just say "enter").
        std::string func = c.bracketed().value_or("");
        std::string text = c.rest();
        if (text.empty() && func.empty()) throw ScriptError("expect " + what + " needs a text");
        auto hit = std::find_if(last_log_.begin(), last_log_.end(), [&](const auto &l) {
            return (func.empty() || l.func == func) && l.text.find(text) != std::string::npos;
        });
        if (!func.empty()) text = "[" + func + "] " + text;
        if (what == "log" && hit == last_log_.end()) {
            std::string got = std::to_string(last_log_.size()) + " log lines";
            size_t shown = 0;
            for (const auto &l : last_log_) {
                if (++shown > 30) {
                    got += "\n  ...";
                    break;
                }
                got += "\n  [" + l.func + "] " + l.text;
            }
            throw ExpectFailure("expected a log line containing \"" + text + "\", got " + got);
        }
        if (what == "no-log" && hit != last_log_.end()) {
            throw ExpectFailure("expected no log line containing \"" + text + "\", got [" +
                                hit->func + "] " + hit->text);
        }
    } else if (what == "output-is") {
        // Byte for byte: the previous command printed exactly this.
        std::string text = c.rest();
        if (last_output_ != text) {
            throw ExpectFailure("expected the output \"" + escaped(text) + "\" exactly, got \"" +
                                escaped(last_output_) + "\"");
        }
    } else if (what == "output" || what == "no-output") {
        std::string text = c.rest();
        if (text.empty()) throw ScriptError("expect " + what + " needs a text");
        bool found = last_output_.find(text) != std::string::npos;
        if (found != (what == "output")) {
            throw ExpectFailure(std::string("expected ") + (found ? "no " : "") +
                                "output containing \"" + text + "\", got " +
                                shown_output(last_output_));
        }
    } else if (what == "exit") {
        int status = static_cast<int>(parse_int(c.word("exit status"), 0, 255, "exit status"));
        c.end();
        g_watch.next_status = status;
    } else {
        throw ScriptError(
            "unknown expectation '" + what +
            "' (record, absent, count, log, no-log, output, output-is, no-output, exit)");
    }
}

}  // namespace host
