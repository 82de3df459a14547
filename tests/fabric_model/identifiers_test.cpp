// Text forms of job ids and port names, as every builder message prints them.
#include "fabric_model/identifiers.h"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <cinttypes>
#include <cstdio>
#include <string>

namespace {

ZeltaExtJobId JobId(uint64_t number, const std::string& prefix, uint64_t sub_id = 0) {
    ZeltaExtJobId id;
    id.job_number = number;
    id.job_sub_id = sub_id;
    id.id_prefix = prefix;
    return id;
}

PortInfo Port(const std::string& name, uint64_t guid) {
    PortInfo port;
    port.name = name;
    port.guid = guid;
    return port;
}

TEST(JobIdText, PrefixUnderscoreAndNumber) {
    EXPECT_EQ(JobId(42, "abc").ToString(), "abc_42");
}

TEST(JobIdText, EmptyPrefixBecomesDefault) {
    EXPECT_EQ(JobId(0, "").ToString(), "default_0");
}

TEST(JobIdText, LargestNumberPrintsAllTwentyDigits) {
    EXPECT_EQ(JobId(18446744073709551615u, "job").ToString(), "job_18446744073709551615");
}

TEST(JobIdText, BlankPrefixIsPrintedAsItIs) {
    EXPECT_EQ(JobId(7, " ").ToString(), " _7");
    EXPECT_EQ(JobId(7, "   ").ToString(), "   _7");
}

TEST(JobIdText, NumbersAreNotPadded) {
    EXPECT_EQ(JobId(5, "p").ToString(), "p_5");
    EXPECT_EQ(JobId(10, "p").ToString(), "p_10");
    EXPECT_EQ(JobId(99, "p").ToString(), "p_99");
    EXPECT_EQ(JobId(100, "p").ToString(), "p_100");
    EXPECT_EQ(JobId(1000, "p").ToString(), "p_1000");
    EXPECT_EQ(JobId(10000000000000000000u, "p").ToString(), "p_10000000000000000000");
}

TEST(JobIdText, SecondValueIsNotPrinted) {
    EXPECT_EQ(JobId(3, "abc", 999).ToString(), JobId(3, "abc", 0).ToString());
}

TEST(JobIdText, DefaultTextIsTheSameOnEveryCall) {
    // The "default" text is made once; later calls must see it unchanged.
    EXPECT_EQ(JobId(1, "").ToString(), "default_1");
    EXPECT_EQ(JobId(2, "").ToString(), "default_2");
    EXPECT_EQ(JobId(3, "x").ToString(), "x_3");
    EXPECT_EQ(JobId(4, "").ToString(), "default_4");
}

RC_GTEST_PROP(JobIdText, NumberIsItsDecimalForm, (uint64_t number, std::string prefix)) {
    std::string expected =
        (prefix.empty() ? std::string("default") : prefix) + "_" + std::to_string(number);
    RC_ASSERT(JobId(number, prefix).ToString() == expected);
}

RC_GTEST_PROP(JobIdText, NumbersOfEveryLengthConvert, (unsigned digits_wanted)) {
    // Numbers around each power of ten, where the pair-wise writing changes its shape.
    unsigned digits = digits_wanted % 20;
    uint64_t power = 1;
    for (unsigned i = 0; i < digits; ++i) {
        power *= 10;
    }
    for (uint64_t number : {power - 1, power, power + 1}) {
        RC_ASSERT(JobId(number, "j").ToString() == "j_" + std::to_string(number));
    }
}

TEST(PortName, NameThenGuidInLowerCaseHex) {
    EXPECT_EQ(Port("sw1", 0x1a2b3c4d5e6f).GetName(), "sw1 GUID:0x1a2b3c4d5e6f");
}

TEST(PortName, GuidZeroIsOneDigit) {
    EXPECT_EQ(Port("sw", 0).GetName(), "sw GUID:0x0");
}

TEST(PortName, FullGuidHasNoPaddingAndNoUpperCase) {
    EXPECT_EQ(Port("s", UINT64_MAX).GetName(), "s GUID:0xffffffffffffffff");
    EXPECT_EQ(Port("s", 0x00000000000000ab).GetName(), "s GUID:0xab");
}

TEST(PortName, EmptyNameStillCarriesTheGuid) {
    EXPECT_EQ(Port("", 0x10).GetName(), " GUID:0x10");
}

TEST(PortName, PlaneSuffixWhenThePlaneIsKnownAndEnabled) {
    PortInfo port = Port("sw1", 0x1a2b3c4d5e6f);
    port.plane = 3;
    port.plane_known = true;
    port.plane_enabled = true;
    EXPECT_EQ(port.GetName(), "sw1 GUID:0x1a2b3c4d5e6f PLN:" + port.PlaneToString());
    EXPECT_EQ(port.GetName(), "sw1 GUID:0x1a2b3c4d5e6f PLN:3");
}

TEST(PortName, NoPlaneSuffixUnlessBothFlagsAreSet) {
    PortInfo port = Port("sw1", 0x1a2b3c4d5e6f);
    port.plane = 3;
    port.plane_known = true;
    port.plane_enabled = false;
    EXPECT_EQ(port.GetName(), "sw1 GUID:0x1a2b3c4d5e6f");
    port.plane_known = false;
    port.plane_enabled = true;
    EXPECT_EQ(port.GetName(), "sw1 GUID:0x1a2b3c4d5e6f");
    port.plane_enabled = false;
    EXPECT_EQ(port.GetName(), "sw1 GUID:0x1a2b3c4d5e6f");
}

TEST(PortName, PlaneIsPrintedInDecimalAfterTheHexGuid) {
    PortInfo port = Port("sw", 0xff);
    port.plane = 12;
    port.plane_known = true;
    port.plane_enabled = true;
    EXPECT_EQ(port.GetName(), "sw GUID:0xff PLN:12");
}

RC_GTEST_PROP(PortName, GuidIsItsHexForm, (uint64_t guid, std::string name)) {
    char hex[32];
    std::snprintf(hex, sizeof(hex), "%" PRIx64, guid);
    RC_ASSERT(Port(name, guid).GetName() == name + " GUID:0x" + hex);
}

}  // namespace
