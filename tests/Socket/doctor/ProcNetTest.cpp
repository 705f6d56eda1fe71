// ProcNet: texts of the kernel, and texts that no kernel writes.
#include "Socket/doctor/ProcNet.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <string>

#include "support/SeededRandom.h"
#include "support/program/TempFolder.h"

namespace Orvex::Reticor {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr char IGMP[] =
    "Idx\tDevice    : Count Querier\tGroup    Users Timer\tReporter\n"
    "1\tlo        :     1      V3\n"
    "\t\t\t\t010000E0     1 0:00000000\t\t0\n"
    "7\tmc0       :     2      V3\n"
    "\t\t\t\t030201EF     2 0:00000000\t\t0\n"
    "\t\t\t\t010000E0     1 0:00000000\t\t0\n";
constexpr char IGMP6[] =
    "1    lo              ff020000000000000000000000000001     1 0000000C 0\n"
    "7    mc0             ff150000000000000000000000000077     3 00000004 0\n";
constexpr char ROUTE[] =
    "Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\t\tMTU\tWindow\tIRTT\n"
    "eth0\t00000000\t010011AC\t0003\t0\t0\t0\t00000000\t0\t0\t0\n"
    "eth1\t00000000\t010011AC\t0003\t0\t0\t0\t00000080\t0\t0\t0\n"
    "eth0\t000011AC\t00000000\t0001\t0\t0\t0\t0000FFFF\t0\t0\t0\n"
    "wg0\t00000000\t00000000\t0001\t0\t0\t5\t00000000\t0\t0\t0\n";
constexpr char NETSTAT[] =
    "TcpExt: SyncookiesSent SyncookiesRecv IPReversePathFilter TW\n"
    "TcpExt: 1 2 594 3\n"
    "IpExt: InNoRoutes IPReversePathFilter\n"
    "IpExt: 8 9\n";

std::vector<std::string> told(const std::vector<JoinedGroup>& groups) {
    std::vector<std::string> texts;
    for (const JoinedGroup& one : groups) {
        texts.push_back(std::to_string(one.interface_index) + " " + one.group.text() + " " +
                        std::to_string(one.members));
    }
    return texts;
}

std::vector<std::string> igmp(const std::string& text) {
    std::vector<JoinedGroup> groups;
    ProcNet::parse_igmp(text, groups);
    return told(groups);
}

std::vector<std::string> igmp6(const std::string& text) {
    std::vector<JoinedGroup> groups;
    ProcNet::parse_igmp6(text, groups);
    return told(groups);
}

TEST(ProcNet, GroupsStandBelowTheirInterface) {
    EXPECT_THAT(igmp(IGMP), ElementsAre("1 224.0.0.1 1", "7 239.1.2.3 2", "7 224.0.0.1 1"));
}

TEST(ProcNet, IPv6GroupsHaveALineEach) {
    EXPECT_THAT(igmp6(IGMP6), ElementsAre("1 ff02::1 1", "7 ff15::77 3"));
}

TEST(ProcNet, GroupsAreAddedToThoseThatAreThere) {
    std::vector<JoinedGroup> groups;
    ProcNet::parse_igmp(IGMP, groups);
    ProcNet::parse_igmp6(IGMP6, groups);
    EXPECT_EQ(5u, groups.size());
}

TEST(ProcNet, LinesThatAreNotAsTheyShouldBeAreLeftOut) {
    EXPECT_THAT(igmp(""), IsEmpty());
    EXPECT_THAT(igmp("\n\n\n"), IsEmpty());
    EXPECT_THAT(igmp("\t\t030201EF 2\n"), IsEmpty()) << "of no interface";
    EXPECT_THAT(igmp("-7\tmc0\n\t030201EF 2\n"), IsEmpty()) << "an interface is a positive number";
    EXPECT_THAT(igmp("7x\tmc0\n\t030201EF 2\n"), IsEmpty());
    EXPECT_THAT(igmp("99999999999\tmc0\n\t030201EF 2\n"), IsEmpty()) << "more than a number holds";
    EXPECT_THAT(igmp("7\tmc0\n\t30201EF 2\n"), IsEmpty()) << "a digit is missing";
    EXPECT_THAT(igmp("7\tmc0\n\t0030201EF 2\n"), IsEmpty()) << "a digit too many";
    EXPECT_THAT(igmp("7\tmc0\n\t0x0201EF 2\n"), IsEmpty());
    EXPECT_THAT(igmp("7\tmc0\n\t030201EF\n"), IsEmpty()) << "without members";
    EXPECT_THAT(igmp("7\tmc0\n\t030201EF -1\n"), IsEmpty());
    EXPECT_THAT(igmp("7\tmc0\n\t030201EF 2"), ElementsAre("7 239.1.2.3 2"))
        << "the last line may have no end";
    EXPECT_THAT(igmp("7\tmc0\nx\n\t030201EF 2\n"), IsEmpty())
        << "what stands below a strange line is nobody's";
}

TEST(ProcNet, IPv6LinesThatAreNotAsTheyShouldBeAreLeftOut) {
    const std::string group(30, 'f');
    EXPECT_THAT(igmp6(""), IsEmpty());
    EXPECT_THAT(igmp6("7 mc0\n"), IsEmpty());
    EXPECT_THAT(igmp6("7 mc0 " + group + " 1\n"), IsEmpty()) << "two digits are missing";
    EXPECT_THAT(igmp6("7 mc0 " + group + "fg 1\n"), IsEmpty());
    EXPECT_THAT(igmp6("7 mc0 " + group + "+1 1\n"), IsEmpty()) << "no signs within";
    EXPECT_THAT(igmp6("7 mc0 " + group + "ff 4294967296\n"), IsEmpty());
    EXPECT_THAT(igmp6("0 mc0 " + group + "ff 1\n"), IsEmpty());
    EXPECT_EQ(1u, igmp6("7 mc0 " + group + "ff 1\n").size());
}

TEST(ProcNet, DefaultRoutesAreThoseToEverywhere) {
    EXPECT_THAT(ProcNet::parse_default_routes(ROUTE), ElementsAre("eth0", "wg0"));
    EXPECT_THAT(ProcNet::parse_default_routes(""), IsEmpty());
    EXPECT_THAT(ProcNet::parse_default_routes("eth0 00000000 0 0 0 0 0 00000000\n"), IsEmpty())
        << "the first line is a head";
    EXPECT_THAT(ProcNet::parse_default_routes("head\neth0 00000000 0 0 0\n"), IsEmpty());
}

TEST(ProcNet, CounterIsFoundByTheNameAboveIt) {
    EXPECT_EQ(594u, ProcNet::parse_counter(NETSTAT, "TcpExt:", "IPReversePathFilter"));
    EXPECT_EQ(9u, ProcNet::parse_counter(NETSTAT, "IpExt:", "IPReversePathFilter"));
    EXPECT_EQ(std::nullopt, ProcNet::parse_counter(NETSTAT, "TcpExt:", "IPReverse"));
    EXPECT_EQ(std::nullopt, ProcNet::parse_counter(NETSTAT, "MPTcpExt:", "IPReversePathFilter"));
    EXPECT_EQ(std::nullopt, ProcNet::parse_counter("", "TcpExt:", "A"));
    EXPECT_EQ(std::nullopt, ProcNet::parse_counter("TcpExt: A B\nTcpExt: 1\n", "TcpExt:", "B"))
        << "too few values";
    EXPECT_EQ(std::nullopt, ProcNet::parse_counter("TcpExt: A\nTcpExt: many\n", "TcpExt:", "A"));
    EXPECT_EQ(std::nullopt, ProcNet::parse_counter("TcpExt: A", "TcpExt:", "A")) << "the values are missing";
    EXPECT_EQ(std::nullopt,
              ProcNet::parse_counter("TcpExt: A\nTcpExt: 18446744073709551616\n", "TcpExt:", "A"));
    EXPECT_EQ(18446744073709551615u,
              ProcNet::parse_counter("TcpExt: A\nTcpExt: 18446744073709551615\n", "TcpExt:", "A"));
}

TEST(ProcNet, NumberStandsAlone) {
    EXPECT_EQ(20, ProcNet::parse_number("20\n"));
    EXPECT_EQ(-1, ProcNet::parse_number("-1"));
    for (const char* text : {"", "\n", "x", "20x", "20 21", "20\n21", "99999999999999999999"}) {
        EXPECT_EQ(std::nullopt, ProcNet::parse_number(text)) << text;
    }
}

TEST(ProcNet, AddressesAreOrderedAndWritten) {
    const unsigned char bytes[16] = {239, 1, 2, 3, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9};
    const unsigned char higher[16] = {239, 1, 2, 4};
    const GroupAddress ipv4 = GroupAddress::of_ipv4(bytes);
    EXPECT_EQ("239.1.2.3", ipv4.text());
    EXPECT_TRUE(ipv4 == GroupAddress::of_ipv4(bytes));
    EXPECT_TRUE(ipv4 < GroupAddress::of_ipv4(higher));
    EXPECT_FALSE(GroupAddress::of_ipv4(higher) < ipv4);
    EXPECT_TRUE(ipv4 != GroupAddress::of_ipv6(bytes)) << "another family";
    EXPECT_TRUE(ipv4 < GroupAddress::of_ipv6(higher));
    EXPECT_EQ("", GroupAddress().text()) << "of no family";
}

TEST(ProcNet, FileThatIsNotThereIsEmptyAndALongOneIsCut) {
    const Testing::TempFolder folder;
    EXPECT_EQ("", ProcNet::read(folder.path() + "/nothing"));
    EXPECT_EQ("", ProcNet::read(folder.path())) << "a folder";
    std::ofstream(folder.path() + "/short") << "20\n";
    EXPECT_EQ("20\n", ProcNet::read(folder.path() + "/short"));
    std::ofstream(folder.path() + "/long") << std::string(5 << 20, 'x');
    EXPECT_EQ(size_t{4} << 20, ProcNet::read(folder.path() + "/long").size());
}

// Bytes are changed, lines cut and doubled: of the result nothing is expected but that there is one, and
// that it holds no more than the text had lines.
TEST(ProcNet, TextsThatWereDamagedHurtNobody) {
    Testing::SeededRandom random;
    const std::string texts[] = {IGMP, IGMP6, ROUTE, NETSTAT};
    for (int round = 0; round < 3000; ++round) {
        std::string text = texts[static_cast<size_t>(round) % 4];
        for (int i = 0; i < 4; ++i) {
            const size_t at = random.between(size_t{0}, text.size() - 1);
            switch (random.between(0, 2)) {
                case 0:
                    text[at] = static_cast<char>(random.between(0, 255));
                    break;
                case 1:
                    text.erase(at, random.between(size_t{1}, size_t{20}));
                    text += ' ';
                    break;
                default:
                    text.insert(at, text.substr(0, random.between(size_t{0}, size_t{40})));
                    break;
            }
        }
        const size_t lines = static_cast<size_t>(std::count(text.begin(), text.end(), '\n')) + 1;
        EXPECT_LE(igmp(text).size(), lines);
        EXPECT_LE(igmp6(text).size(), lines);
        EXPECT_LE(ProcNet::parse_default_routes(text).size(), lines);
        ProcNet::parse_counter(text, "TcpExt:", "IPReversePathFilter");
        ProcNet::parse_number(text);
    }
}

}  // namespace
}  // namespace Orvex::Reticor
