// The records on the wire and the module's one exported symbol.
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <set>
#include <string>

#include "p_dev.pb-c.h"
#include "test_support.h"
#include "u_cluster.pb-c.h"
#include "u_cluster.pb.h"

namespace {

std::string varint(uint64_t v) {
    std::string out;
    do {
        uint8_t b = v & 0x7F;
        v >>= 7;
        out.push_back(static_cast<char>(v != 0 ? b | 0x80 : b));
    } while (v != 0);
    return out;
}

std::string key(uint32_t field, uint32_t wire) {
    return varint((field << 3) | wire);
}

// Other components may write repeated numbers either way; the record must read
// the same.
TEST(Records, RepeatedScalarsArePackedOnTheWireAndUnpackedInputIsAccepted) {
    uint32_t words[3] = {0x0E, 0, 0x80000000U};
    UCluster__ApidIdx idx = U_CLUSTER__APID_IDX__INIT;
    idx.apid = 2;
    UCluster__VslSrcmodIgr rec = U_CLUSTER__VSL_SRCMOD_IGR__INIT;
    rec.index = &idx;
    rec.n_permit_modid = 3;
    rec.permit_modid = words;
    std::string wire = dpm_test::pack(&rec.base);

    // index {apid: 2}, then one length-delimited run of the three words.
    std::string body = varint(0x0E) + varint(0) + varint(0x80000000U);
    std::string want =
        key(5, 2) + varint(2) + key(1, 0) + varint(2) + key(6, 2) + varint(body.size()) + body;
    EXPECT_EQ(wire, want);

    struct Case {
        const char *what;
        std::string bytes;
    };
    std::string unpacked = key(5, 2) + varint(2) + key(1, 0) + varint(2);
    for (uint32_t w : words) unpacked += key(6, 0) + varint(w);
    std::string mixed = key(5, 2) + varint(2) + key(1, 0) + varint(2) + key(6, 0) +
                        varint(words[0]) + key(6, 2) + varint(body.size() - 1) + varint(0) +
                        varint(0x80000000U);
    const Case cases[] = {{"packed", wire}, {"unpacked", unpacked}, {"mixed", mixed}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        dpm_test::Unpacked<UCluster__VslSrcmodIgr> got(&u_cluster__vsl_srcmod_igr__descriptor,
                                                       c.bytes);
        ASSERT_NE(got.msg, nullptr);
        ASSERT_NE(got->index, nullptr);
        EXPECT_EQ(got->index->apid, 2u);
        ASSERT_EQ(got->n_permit_modid, 3u);
        for (size_t i = 0; i < 3; ++i) EXPECT_EQ(got->permit_modid[i], words[i]) << i;

        // The host's C++ code reads the same record.
        u_cluster::vsl_srcmod_igr cpp;
        ASSERT_TRUE(cpp.ParseFromString(c.bytes));
        ASSERT_EQ(cpp.permit_modid_size(), 3);
        EXPECT_EQ(cpp.permit_modid(2), words[2]);
    }
}

// The ids of an mfib route are signed and packed as well; negative values take
// ten bytes each on the wire and must come back unchanged.
TEST(Records, NegativeRepeatedIdsRoundTrip) {
    int32_t oif[2] = {-1, 2};
    PDev__DtmMfibInfo mfib = P_DEV__DTM_MFIB_INFO__INIT;
    mfib.n_oif_id = 2;
    mfib.oif_id = oif;
    std::string wire = dpm_test::pack(&mfib.base);
    EXPECT_EQ(wire.substr(0, 1), key(4, 2));
    dpm_test::Unpacked<PDev__DtmMfibInfo> got(&p_dev__dtm_mfib_info__descriptor, wire);
    ASSERT_NE(got.msg, nullptr);
    ASSERT_EQ(got->n_oif_id, 2u);
    EXPECT_EQ(got->oif_id[0], -1);
    EXPECT_EQ(got->oif_id[1], 2);
}

// The shared object is loaded by a host that knows one name; everything else
// stays inside so two modules never clash.
TEST(Records, TheModuleExportsOnlyItsEntryPoint) {
    std::string cmd = std::string("nm -D --defined-only '") + DPM_MODULE_PATH + "'";
    std::unique_ptr<FILE, int (*)(FILE *)> p(popen(cmd.c_str(), "r"), pclose);
    ASSERT_NE(p, nullptr);
    std::set<std::string> names;
    char line[512];
    while (fgets(line, sizeof line, p.get()) != nullptr) {
        std::string s(line);
        while (!s.empty() && (s.back() == '\n' || s.back() == ' ')) s.pop_back();
        size_t sp = s.rfind(' ');
        if (sp == std::string::npos) continue;
        char kind = sp > 0 ? s[sp - 1] : '?';
        // Version nodes of the version script are absolute symbols, not code.
        if (kind == 'A') continue;
        names.insert(s.substr(sp + 1));
    }
    EXPECT_EQ(names, std::set<std::string>{"ce_dpm_dlib_init"});
}

}  // namespace
