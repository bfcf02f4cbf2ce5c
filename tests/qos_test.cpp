// QoS marking through the public calls: the check, the commands run (recorded and really run in
// the test's private network namespace), the kernel's mangle table, the store and the log.
#include "support/test_support.h"

#include "qmt_conf.h"
#include "qmtnm.h"

#include <gtest/gtest.h>

#include <string>
#include <sys/wait.h>
#include <vector>

using nmtest::logged;
using nmtest::logs;
using strings = std::vector<std::string>;

namespace {

const int32_t kInvalid = static_cast<int32_t>(0xFDF4FFF9);
const int32_t kStore = static_cast<int32_t>(0xFDF4FFFE);

const strings kRemove = {
    "iptables -t mangle -D OUTPUT -j qos_mangle_chain &>/dev/null",
    "iptables -t mangle -F qos_mangle_chain &>/dev/null",
    "iptables -t mangle -X qos_mangle_chain &>/dev/null",
};

strings marking_commands(int dscp) {
    strings c = kRemove;
    c.push_back("iptables -t mangle -N qos_mangle_chain");
    c.push_back("iptables -t mangle -A OUTPUT -j qos_mangle_chain");
    c.push_back("iptables -t mangle -A qos_mangle_chain -j DSCP --set-dscp " +
                std::to_string(dscp));
    return c;
}

// The kernel's mangle rules that concern the chain.
std::string mangle_rules() {
    return nmtest::sh("iptables -t mangle -S 2>&1 | grep qos_mangle_chain");
}

std::string chain_rules(int dscp) {
    char hex[8];
    snprintf(hex, sizeof hex, "0x%02x", dscp);
    return std::string("-N qos_mangle_chain\n-A OUTPUT -j qos_mangle_chain\n") +
           "-A qos_mangle_chain -j DSCP --set-dscp " + hex + "\n";
}

qmtnm_qos_cfg stored() {
    qmtnm_qos_cfg c = {-1, -1};
    EXPECT_EQ(qmt_conf_scanf("network", "%k%k%d", "network_qos", "enable", &c.enable), 0);
    EXPECT_EQ(qmt_conf_scanf("network", "%k%k%d", "network_qos", "dscp", &c.dscp), 0);
    return c;
}

class Qos : public testing::Test {
  protected:
    void SetUp() override {
        nmtest::load_defaults();
        nmtest::set_activate_flag(1);
        nmtest::run_commands(true);
        nmtest::sh("iptables -t mangle -D OUTPUT -j qos_mangle_chain 2>/dev/null;"
                   "iptables -t mangle -F qos_mangle_chain 2>/dev/null;"
                   "iptables -t mangle -X qos_mangle_chain 2>/dev/null");
        nmtest::clear_commands();
        logs().clear();
    }
    void TearDown() override { nmtest::set_activate_flag(1); }

    int32_t set(int32_t enable, int32_t dscp) {
        qmtnm_qos_cfg c = {enable, dscp};
        return qmtnm_lcl_set(QMTNM_ID_QOS, &c, 0);
    }
};

TEST_F(Qos, CheckAcceptsOnlyZeroOrOneAndDscpBelow64) {
    struct {
        int32_t enable, dscp;
        int32_t result;
        strings log;
    } const rows[] = {
        {0, 200, 0, {}}, // dscp is not looked at when marking is off
        {0, -5, 0, {}},
        {1, 0, 0, {}},
        {1, 63, 0, {}},
        {1,
         64,
         kInvalid,
         {logged("check_qos_info_grammar", "qos dscp value > 63, errno = -34275335")}},
        {1,
         -1,
         kInvalid,
         {logged("check_qos_info_grammar", "qos dscp value > 63, errno = -34275335")}},
        {2,
         5,
         kInvalid,
         {logged("check_qos_info_grammar",
                 "input qos enable value = 2 invalid, errno = -34275335")}},
        {-1,
         5,
         kInvalid,
         {logged("check_qos_info_grammar",
                 "input qos enable value = -1 invalid, errno = -34275335")}},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(std::to_string(r.enable) + "/" + std::to_string(r.dscp));
        nmtest::load_defaults();
        logs().clear();
        nmtest::clear_commands();
        EXPECT_EQ(set(r.enable, r.dscp), r.result);
        if (r.result != 0) {
            EXPECT_EQ(logs().texts(), r.log);
            EXPECT_TRUE(nmtest::commands().empty());
            EXPECT_EQ(stored().enable, 0) << "a refused record reached the store";
        }
    }
}

TEST_F(Qos, SetAppliesThenStoresAndASecondSetIsUpToDate) {
    ASSERT_EQ(set(1, 46), 0);
    EXPECT_EQ(nmtest::commands(), marking_commands(46));
    EXPECT_EQ(mangle_rules(), chain_rules(46));
    qmtnm_qos_cfg s = stored();
    EXPECT_EQ(s.enable, 1);
    EXPECT_EQ(s.dscp, 46);
    qmtnm_qos_cfg got = {};
    ASSERT_EQ(qmtnm_lcl_get(QMTNM_ID_QOS, &got, 0), 0);
    EXPECT_EQ(got.enable, 1);
    EXPECT_EQ(got.dscp, 46);
    EXPECT_TRUE(logs().texts().empty());

    nmtest::clear_commands();
    ASSERT_EQ(set(1, 46), 0);
    EXPECT_TRUE(nmtest::commands().empty());
    EXPECT_EQ(logs().texts(), strings{logged("qmtnm_lcl_set", "config is up-to-date")});
    EXPECT_EQ(mangle_rules(), chain_rules(46));
}

TEST_F(Qos, OffRemovesTheChainAndKeepsTheStoredDscp) {
    ASSERT_EQ(set(1, 46), 0);
    nmtest::clear_commands();
    ASSERT_EQ(set(0, 200), 0);
    EXPECT_EQ(nmtest::commands(), kRemove);
    EXPECT_EQ(mangle_rules(), "");
    qmtnm_qos_cfg s = stored();
    EXPECT_EQ(s.enable, 0);
    EXPECT_EQ(s.dscp, 46) << "dscp is written only while marking is on";
    // The compare covers dscp even when off: {0, 5} against stored {0, 46} is a change that
    // stores enable only.
    nmtest::clear_commands();
    ASSERT_EQ(set(0, 5), 0);
    EXPECT_EQ(nmtest::commands(), kRemove);
    EXPECT_EQ(stored().dscp, 46);
    ASSERT_EQ(set(0, 46), 0);
    EXPECT_TRUE(logs().contains(logged("qmtnm_lcl_set", "config is up-to-date")));
}

TEST_F(Qos, RepeatedOffAndOnNeverLeavesTwoChainsOrHooks) {
    const int values[] = {10, 20, 63, 0, 46};
    for (int round = 0; round < 3; ++round) {
        for (int dscp : values) {
            ASSERT_EQ(set(1, dscp), 0);
            EXPECT_EQ(mangle_rules(), chain_rules(dscp));
            ASSERT_EQ(set(0, dscp), 0);
            EXPECT_EQ(mangle_rules(), "");
        }
    }
    // On after on, with a new value, replaces the chain too.
    ASSERT_EQ(set(1, 8), 0);
    ASSERT_EQ(set(1, 9), 0);
    EXPECT_EQ(mangle_rules(), chain_rules(9));
}

TEST_F(Qos, WithTheActivateFlagClearOnlyTheStoreChanges) {
    nmtest::set_activate_flag(0);
    ASSERT_EQ(set(1, 10), 0);
    EXPECT_TRUE(nmtest::commands().empty());
    EXPECT_EQ(mangle_rules(), "");
    EXPECT_EQ(stored().enable, 1);
    EXPECT_EQ(stored().dscp, 10);
    EXPECT_EQ(logs().texts(), strings{logged("qmtnm_lcl_set", "need reboot to activate action")});
}

TEST_F(Qos, StoreFailuresAreReportedWithTheirKey) {
    // A missing enable fails the get and the compare of a set.
    nmtest::store_sql("DELETE FROM conf WHERE path='network/network_qos/enable'");
    qmtnm_qos_cfg got = {};
    EXPECT_EQ(qmtnm_lcl_get(QMTNM_ID_QOS, &got, 0), kStore);
    EXPECT_EQ(set(1, 46), kStore);
    EXPECT_TRUE(nmtest::commands().empty());
    EXPECT_EQ(logs().texts(),
              (strings{logged("get_qos_config", "read qos enable fail, ret = -34275330"),
                       logged("get_qos_config", "read qos enable fail, ret = -34275330"),
                       logged("qos_config_nochange", "get qos info fail, ret = -34275330")}));

    // A missing dscp: enable is read, then the dscp read fails.
    nmtest::load_defaults();
    nmtest::store_sql("DELETE FROM conf WHERE path='network/network_qos/dscp'");
    logs().clear();
    got = {-1, -1};
    EXPECT_EQ(qmtnm_lcl_get(QMTNM_ID_QOS, &got, 0), kStore);
    EXPECT_EQ(got.enable, 0);
    EXPECT_EQ(logs().texts(),
              strings{logged("get_qos_config", "read qos dscp value fail, ret = -34275330")});

    // A refused write of dscp: applied, enable stored, then the failure.
    nmtest::load_defaults();
    nmtest::store_sql(
        "CREATE TRIGGER refuse_dscp BEFORE INSERT ON conf WHEN "
        "NEW.path='network/network_qos/dscp' BEGIN SELECT RAISE(ABORT,'refused'); END");
    logs().clear();
    nmtest::clear_commands();
    EXPECT_EQ(set(1, 33), kStore);
    EXPECT_EQ(nmtest::commands(), marking_commands(33));
    EXPECT_EQ(logs().texts(),
              strings{logged("flush_qos_config", "write qos dscp fail, ret = -34275330")});
    int enable = -1;
    ASSERT_EQ(qmt_conf_scanf("network", "%k%k%d", "network_qos", "enable", &enable), 0);
    EXPECT_EQ(enable, 1);
    nmtest::store_sql("DROP TRIGGER refuse_dscp");

    // A refused write of enable stops before dscp.
    nmtest::store_sql("CREATE TRIGGER refuse_enable BEFORE INSERT ON conf WHEN "
                      "NEW.path='network/network_qos/enable' BEGIN SELECT RAISE(ABORT,'x'); END");
    logs().clear();
    EXPECT_EQ(set(1, 34), kStore);
    EXPECT_EQ(logs().texts(),
              strings{logged("flush_qos_config", "write qos enable fail, ret = -34275330")});
    nmtest::store_sql("DROP TRIGGER refuse_enable");
    EXPECT_EQ(stored().dscp, 0);
}

TEST_F(Qos, ToolSetsAndGetsThroughTheStore) {
    const std::string tool = std::string(QMTNM_TOOL) + " ";
    // Outside the emulated device the tool refuses to change anything.
    EXPECT_NE(std::system((tool + "set qos enable=1 dscp=46 2>/dev/null").c_str()), 0);
    EXPECT_EQ(stored().enable, 0);
    EXPECT_EQ(nmtest::sh("QMTNM_DEVICE=sim " + tool + "set qos enable=1 dscp=46 >/dev/null && " +
                         tool + "get qos --json"),
              "{\"area\":\"qos\",\"instance\":\"qos_lcl\",\"enable\":1,\"dscp\":46}\n");
    EXPECT_EQ(mangle_rules(), chain_rules(46));
    // With -v the library's log lines are echoed on stderr.
    EXPECT_EQ(nmtest::sh("QMTNM_DEVICE=sim " + tool +
                         "-v set qos dscp=46 2>&1 >/dev/null | sed 's/\\[[0-9]*\\]/[]/'"),
              "libqmtnm[]: " + logged("qmtnm_lcl_set", "config is up-to-date\n"));
    // Failures are decoded into words, with a non-zero exit status.
    struct {
        std::string args;
        std::string stderr_text;
        int status;
    } const rows[] = {
        {"set qos enable=2", "qos: invalid input (0xFDF4FFF9)\n", 1},
        {"set qos colour=2", "qmtnm: colour=2: expected field=value with a field of qos\n", 2},
        {"set qos dscp=12x", "qmtnm: dscp: '12x' is not a valid value\n", 2},
        {"get nosuch", "qmtnm: unknown area 'nosuch' (see 'qmtnm areas')\n", 2},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.args);
        EXPECT_EQ(nmtest::sh("QMTNM_DEVICE=sim " + tool + r.args + " 2>&1 >/dev/null"),
                  r.stderr_text);
        int st = std::system(("QMTNM_DEVICE=sim " + tool + r.args + " >/dev/null 2>&1").c_str());
        EXPECT_EQ(WEXITSTATUS(st), r.status);
    }
    nmtest::store_sql("DELETE FROM conf WHERE path='network/network_qos/enable'");
    EXPECT_EQ(nmtest::sh(tool + "get qos 2>&1"),
              "qos: settings store read or write failed (0xFDF4FFFE)\n");
}

} // namespace
