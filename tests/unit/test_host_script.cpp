// The scenario language's lexical side and record text of dpm-host. The host
// is an executable, so its parser sources are compiled into this test directly.
#include <gtest/gtest.h>

#include <google/protobuf/util/message_differencer.h>

#include "../../host/records.cpp"
#include "../../host/script.cpp"

namespace {

using host::ScriptError;

// Feeds lines and collects the statements (or the first error).
struct Fed {
    std::vector<std::string> statements;
    std::vector<int> first_lines;
    std::string error;
    bool open = false;
};

Fed feed_all(const std::vector<std::string> &lines) {
    Fed f;
    host::StatementReader r;
    int n = 0;
    try {
        for (const auto &l : lines) {
            if (r.feed(l, ++n)) {
                f.first_lines.push_back(r.first_line());
                f.statements.push_back(r.take());
            }
        }
    } catch (const ScriptError &e) {
        f.error = e.what();
    }
    f.open = r.open();
    return f;
}

TEST(HostStatementReader, SplitsCommentsRecordsAndQuotes) {
    struct Case {
        const char *name;
        std::vector<std::string> lines;
        std::vector<std::string> want;
        std::vector<int> first_lines;
        const char *error;  // substring, or null
    } cases[] = {
        {"comment after a command", {"start # go"}, {"start"}, {1}, nullptr},
        {"comment-only line is empty", {"# nothing", "start"}, {"", "start"}, {1, 2}, nullptr},
        {"hash inside double quotes", {"print \"a#b\" # c"}, {"print \"a#b\""}, {1}, nullptr},
        {"record over three lines",
         {"db set 14 T {", "  a: 1 # key", "}", "start"},
         {"db set 14 T {\n  a: 1 \n}", "start"},
         {1, 4},
         nullptr},
        {"nested braces", {"x { a { b: 1", "} }"}, {"x { a { b: 1\n} }"}, {1}, nullptr},
        {"brace inside a record string",
         {"x { name: \"}\" }"},
         {"x { name: \"}\" }"},
         {1},
         nullptr},
        {"apostrophe in plain text", {"print don't"}, {"print don't"}, {1}, nullptr},
        {"single-quoted string in a record",
         {"x { name: 'a}#b' }"},
         {"x { name: 'a}#b' }"},
         {1},
         nullptr},
        {"escaped quote", {"print \"a\\\"#\""}, {"print \"a\\\"#\""}, {1}, nullptr},
        {"stray closing brace", {"print }"}, {}, {}, "without a matching"},
        {"unterminated quote", {"print \"abc"}, {}, {}, "unterminated"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        Fed f = feed_all(c.lines);
        if (c.error != nullptr) {
            EXPECT_NE(f.error.find(c.error), std::string::npos) << f.error;
            EXPECT_FALSE(f.open);
            continue;
        }
        EXPECT_EQ(f.error, "");
        EXPECT_EQ(f.statements, c.want);
        EXPECT_EQ(f.first_lines, c.first_lines);
        EXPECT_FALSE(f.open);
    }
}

TEST(HostStatementReader, UnclosedRecordStaysOpenAndRecoversAfterError) {
    Fed f = feed_all({"db set 14 T {", "a: 1"});
    EXPECT_TRUE(f.statements.empty());
    EXPECT_TRUE(f.open);

    // After a mistake the reader starts afresh (the shell goes on).
    host::StatementReader r;
    EXPECT_THROW(r.feed("x } {", 1), ScriptError);
    EXPECT_FALSE(r.open());
    ASSERT_TRUE(r.feed("start", 2));
    EXPECT_EQ(r.take(), "start");
    EXPECT_EQ(r.first_line(), 2);
}

TEST(HostCursor, WordsRecordsAndTexts) {
    host::Cursor c("db set 14 u_cluster.x{ a { b: \"}\" } c: 1 }  rest");
    EXPECT_EQ(c.word("op"), "db");
    EXPECT_EQ(c.word("op"), "set");
    EXPECT_EQ(c.word("db"), "14");
    EXPECT_EQ(c.word("type"), "u_cluster.x");
    EXPECT_EQ(c.record("record"), " a { b: \"}\" } c: 1 ");
    EXPECT_EQ(c.rest(), "rest");
    EXPECT_TRUE(c.at_end());

    struct Case {
        const char *text;
        std::string want;  // of rest(), or the error substring
        bool error;
    } texts[] = {
        {"  plain text  ", "plain text", false},
        {"\"quoted  # \\\"x\\\" \\\\ \\n\"", "quoted  # \"x\" \\ \n", false},
        {"", "", false},
        {"\"a\" b", "unexpected 'b'", true},
        {"\"a\\q\"", "unknown escape", true},
        {"\"open", "unterminated", true},
    };
    for (const auto &t : texts) {
        SCOPED_TRACE(t.text);
        host::Cursor r(t.text);
        if (t.error) {
            try {
                r.rest();
                ADD_FAILURE() << "no error";
            } catch (const ScriptError &e) {
                EXPECT_NE(std::string(e.what()).find(t.want), std::string::npos) << e.what();
            }
        } else {
            EXPECT_EQ(r.rest(), t.want);
        }
    }
}

TEST(HostCursor, MisplacedPartsAreScriptErrors) {
    struct Case {
        const char *text;
        int action;  // 0 word, 1 record, 2 end after one word
        const char *error;
    } cases[] = {
        {"", 0, "missing op"},
        {"{ a: 1 }", 0, "found a record"},
        {"\"x\"", 0, "found a quoted text"},
        {"", 1, "missing record in braces"},
        {"abc", 1, "found 'abc'"},
        {"{ a { b: 1 }", 1, "unbalanced"},
        {"one two", 2, "unexpected 'two'"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text);
        host::Cursor k(c.text);
        try {
            if (c.action == 0) k.word("op");
            if (c.action == 1) k.record("record");
            if (c.action == 2) {
                k.word("op");
                k.end();
            }
            ADD_FAILURE() << "no error";
        } catch (const ScriptError &e) {
            EXPECT_NE(std::string(e.what()).find(c.error), std::string::npos) << e.what();
        }
    }
}

TEST(HostCursor, BracketedFunctionName) {
    host::Cursor c("[dpm_mmc_ds] \"enter\"");
    EXPECT_EQ(c.bracketed(), "dpm_mmc_ds");
    EXPECT_EQ(c.rest(), "enter");
    host::Cursor plain("enter [x]");
    EXPECT_EQ(plain.bracketed(), std::nullopt);
    EXPECT_EQ(plain.rest(), "enter [x]");
    host::Cursor bad("[open");
    EXPECT_THROW(bad.bracketed(), ScriptError);
}

TEST(HostValues, Integers) {
    struct Case {
        const char *tok;
        int64_t lo, hi, want;
        bool ok;
    } cases[] = {
        {"0", 0, 10, 0, true},
        {"10", 0, 10, 10, true},
        {"+7", 0, 10, 7, true},
        {"-1", -1, 10, -1, true},
        {"11", 0, 10, 0, false},
        {"-1", 0, 10, 0, false},
        {"", 0, 10, 0, false},
        {"1x", 0, 10, 0, false},
        {" 1", 0, 10, 0, false},
        {"99999999999999999999", 0, INT64_MAX, 0, false},
        {"4294967295", 0, UINT32_MAX, 4294967295, true},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.tok);
        if (c.ok) {
            EXPECT_EQ(host::parse_int(c.tok, c.lo, c.hi, "n"), c.want);
        } else {
            EXPECT_THROW(host::parse_int(c.tok, c.lo, c.hi, "n"), ScriptError);
        }
    }
}

TEST(HostValues, Databases) {
    struct Case {
        const char *tok;
        int want;  // -1: error
    } cases[] = {
        {"ASIC_DB", 0}, {"LOCAL_DB", 3}, {"UDP_DB", 8},   {"TOPO_DB", 14}, {"14", 14}, {"0", 0},
        {"15", 15},     {"16", -1},      {"topo_db", -1}, {"TOPO", -1},    {"-1", -1}, {"", -1},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.tok);
        if (c.want >= 0) {
            EXPECT_EQ(host::parse_db(c.tok), c.want);
        } else {
            EXPECT_THROW(host::parse_db(c.tok), ScriptError);
        }
    }
}

TEST(HostValues, CardPositionsAndTheirPackedSlot) {
    struct Case {
        const char *tok;
        int64_t gslot;  // -1: error
    } cases[] = {
        {"1/0/0", 0},
        {"1/5/0", 5},
        {"2/3/1", 3 | (1 << 5) | (1 << 10)},
        {"32/31/31", 31 | (31 << 5) | (31 << 10)},
        {"0/1/1", -1},
        {"33/0/0", -1},
        {"1/32/0", -1},
        {"1/0/32", -1},
        {"1/0", -1},
        {"1/0/0/0", -1},
        {"a/0/0", -1},
        {"1//0", -1},
        {"-1/0/0", -1},
        {"", -1},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.tok);
        if (c.gslot >= 0) {
            EXPECT_EQ(host::card_gslot(host::parse_position(c.tok, 31, "card")),
                      static_cast<uint32_t>(c.gslot));
        } else {
            EXPECT_THROW(host::parse_position(c.tok, 31, "card"), ScriptError);
        }
    }
    // Ports take a local port number wider than a sub-slot.
    host::Position p = host::parse_position("3/4/300", 65535, "port");
    EXPECT_EQ(p.dev, 3);
    EXPECT_EQ(p.slot, 4);
    EXPECT_EQ(p.third, 300);
}

TEST(HostValues, Durations) {
    struct Case {
        const char *tok;
        uint64_t us;  // 0: error
    } cases[] = {
        {"250us", 250},        {"500ms", 500000}, {"90s", 90000000}, {"30m", 1800000000ull},
        {"1h", 3600000000ull}, {"0s", 0},         {"90", 0},         {"s", 0},
        {"1.5s", 0},           {"-1s", 0},        {"10d", 0},        {"99999999999999999999h", 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.tok);
        if (c.us > 0 || std::string(c.tok) == "0s") {
            EXPECT_EQ(host::parse_duration_us(c.tok), c.us);
        } else {
            EXPECT_THROW(host::parse_duration_us(c.tok), ScriptError);
        }
    }
}

// What show prints must parse back to the same record, or a scenario author
// could not paste it into an expectation.
TEST(HostRecords, ShortTextParsesBackToTheSameRecord) {
    struct Case {
        const char *type;
        const char *text;
        const char *shown;  // exact short text, or null to check only the round trip
    } cases[] = {
        {"u_cluster.kel_uc_balance", "index { modid: 5 } local_modid: 3 apid: 1",
         "index { modid: 5 } local_modid: 3 apid: 1"},
        {"u_cluster.kel_uc_balance", "", ""},
        {"u_cluster.kel_uc_balance", "index { }", "index { }"},
        {"u_cluster.vsl_srcmod_igr", "index { apid: 2 } permit_modid: 1 permit_modid: 0",
         "index { apid: 2 } permit_modid: [1, 0]"},
        {"u_cluster.vsl_ap_member",
         "index { apid: 1 } member { devid: 1 lport: 3 } member { devid: 2 gphyid: 9 }",
         "index { apid: 1 } member { devid: 1 lport: 3 } member { devid: 2 gphyid: 9 }"},
        {"u_cluster.kel_dev_fwdstate", "index { devid: 2 } fwd_state: \"a \\\"b\\\" #\"", nullptr},
        {"p_dev.dp_lib_grole",
         "my_grole: DM_ROLE_MASTER sysmac: \"\\001\\002\\377\" "
         "card_role { devid: 1 is_local_master: true globe_role: DM_ROLE_SLAVE }",
         nullptr},
        {"p_dev.dtm_route_info", "local_id: -3 mfibs { src_id: 1 oif_id: [2, -4] }", nullptr},
        {"s_intf.evt_mod_alloc",
         "index { devid: 1 } modid: 64 node_type: DM_TYPE_LC fuid_info { id: [7] fuid_type: "
         "DDM_LOGICAL }",
         nullptr},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text);
        const auto *d = host::record_type(c.type);
        auto m = host::parse_record(d, c.text);
        std::string shown = host::short_text(*m);
        if (c.shown != nullptr) {
            EXPECT_EQ(shown, c.shown);
        }
        EXPECT_EQ(shown.find('\n'), std::string::npos);
        auto back = host::parse_record(d, shown);
        EXPECT_TRUE(google::protobuf::util::MessageDifferencer::Equals(*m, *back)) << shown;
        // And through the wire form the stand-in keeps.
        std::string packed;
        ASSERT_TRUE(m->SerializeToString(&packed));
        auto unpacked = host::unpack_record(d, packed);
        ASSERT_NE(unpacked, nullptr);
        EXPECT_TRUE(google::protobuf::util::MessageDifferencer::Equals(*m, *unpacked));
    }
}

TEST(HostRecords, BadTypesAndTextAreScriptErrors) {
    struct Case {
        const char *type;
        const char *text;
        const char *error;
    } cases[] = {
        {"u_cluster.kel_uc_balancer", "", "unknown record type 'u_cluster.kel_uc_balancer'"},
        {"kel_uc_balance", "", "unknown record type"},
        {"u_cluster.kel_uc_balance", "index { modid: x }",
         "line 1 column 16 of the record: Expected integer"},
        {"u_cluster.kel_uc_balance", "\n  nope: 1", "line 2 column"},
        {"u_cluster.kel_uc_balance", "apid: -1", "malformed u_cluster.kel_uc_balance record"},
        {"u_cluster.kel_dev_fwdstate", "fwd_state: 3", "line 1"},
        {"p_dev.dp_lib_grole", "my_grole: DM_ROLE_BOSS", "DM_ROLE_BOSS"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text);
        try {
            host::parse_record(host::record_type(c.type), c.text);
            ADD_FAILURE() << "no error";
        } catch (const ScriptError &e) {
            EXPECT_NE(std::string(e.what()).find(c.error), std::string::npos) << e.what();
        }
    }
    // Bytes that are not a record of the type do not decode.
    EXPECT_EQ(host::unpack_record(host::record_type("u_cluster.kel_uc_balance"), "\xff\xff"),
              nullptr);
}

}  // namespace
