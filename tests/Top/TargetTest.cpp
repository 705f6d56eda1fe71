// Target: paths and URLs as people write them.
#include "top/Target.h"

#include <netinet/in.h>
#include <sys/un.h>

#include <cstring>
#include <string>

#include <gtest/gtest.h>

namespace {

using top::Target;

std::string refusal_of(const std::string& text) {
    Target target;
    std::string wrong;
    return target.resolve(text, wrong) ? "taken" : wrong;
}

/// The port of the first address.
int port_of(const std::string& text) {
    Target target;
    std::string wrong;
    EXPECT_TRUE(target.resolve(text, wrong)) << wrong;
    if (target.addresses().empty()) {
        return -1;
    }
    const sockaddr_storage& bytes = target.addresses()[0].bytes;
    return ntohs(bytes.ss_family == AF_INET6 ? reinterpret_cast<const sockaddr_in6&>(bytes).sin6_port
                                             : reinterpret_cast<const sockaddr_in&>(bytes).sin_port);
}

std::string request_of(const std::string& text) {
    Target target;
    std::string wrong;
    EXPECT_TRUE(target.resolve(text, wrong)) << wrong;
    return target.bytesOf("json");
}

TEST(TargetPath, IsTheAddressOfASocket) {
    Target target;
    std::string wrong;
    ASSERT_TRUE(target.resolve("/run/shop.stats", wrong));
    EXPECT_FALSE(target.isHttp());
    EXPECT_EQ("/run/shop.stats", target.text());
    ASSERT_EQ(1u, target.addresses().size());
    const auto& address = reinterpret_cast<const sockaddr_un&>(target.addresses()[0].bytes);
    EXPECT_EQ(AF_UNIX, address.sun_family);
    EXPECT_STREQ("/run/shop.stats", address.sun_path);
    EXPECT_EQ("json\n", target.bytesOf("json"));
    EXPECT_EQ("timing on\n", target.bytesOf("timing on"));
}

TEST(TargetPath, MayBeRelativeAndHaveOddLetters) {
    EXPECT_EQ("taken", refusal_of("shop.stats"));
    EXPECT_EQ("taken", refusal_of("http"));
    EXPECT_EQ("taken", refusal_of("host:80"));
    EXPECT_EQ("taken", refusal_of("a b"));
}

TEST(TargetPath, IsNoLongerThanASocketsCanBe) {
    EXPECT_EQ("taken", refusal_of(std::string(107, 'x')));
    EXPECT_EQ("is longer than the path of a socket can be", refusal_of(std::string(108, 'x')));
    EXPECT_EQ("is empty", refusal_of(""));
}

TEST(TargetUrl, HasAPortAndAPageOfItsOwnWhereNoneIsGiven) {
    EXPECT_EQ(80, port_of("http://127.0.0.1"));
    EXPECT_EQ(80, port_of("http://127.0.0.1/"));
    EXPECT_EQ(7009, port_of("http://127.0.0.1:7009"));
    EXPECT_EQ(7009, port_of("http://127.0.0.1:7009/other.json"));
    EXPECT_EQ(80, port_of("http://[::1]"));
    EXPECT_EQ(7009, port_of("http://[::1]:7009/"));
    EXPECT_EQ("GET /stats.json HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n",
              request_of("http://127.0.0.1"));
    EXPECT_EQ("GET /stats.json HTTP/1.1\r\nHost: [::1]:7\r\nConnection: close\r\n\r\n",
              request_of("http://[::1]:7/"));
    EXPECT_EQ("GET /a/b?c HTTP/1.1\r\nHost: 127.0.0.1:1\r\nConnection: close\r\n\r\n",
              request_of("http://127.0.0.1:1/a/b?c"));
}

TEST(TargetUrl, ANameMayHaveSeveralAddresses) {
    Target target;
    std::string wrong;
    ASSERT_TRUE(target.resolve("http://localhost:7009", wrong)) << wrong;
    EXPECT_TRUE(target.isHttp());
    EXPECT_GE(target.addresses().size(), 1u);
    ASSERT_TRUE(target.resolve("/a/path", wrong));
    EXPECT_FALSE(target.isHttp()) << "nothing is left of the one before";
    EXPECT_EQ(1u, target.addresses().size());
}

TEST(TargetUrl, WhatIsOddIsRefused) {
    EXPECT_EQ("only http:// is understood", refusal_of("https://host"));
    EXPECT_EQ("only http:// is understood", refusal_of("unix:///run/x"));
    for (const char* const odd : {"http://", "http:///page", "http://:80", "http://[::1", "http://[]",
                                  "http://[::1]x", "http://host:", "http://[::1]:"}) {
        EXPECT_EQ("has no host or no port", refusal_of(odd)) << odd;
    }
}

TEST(TargetUrl, NothingCanBeSlippedIntoTheRequest) {
    EXPECT_EQ("is not a URL", refusal_of("http://127.0.0.1/a\r\nX: y"));
    EXPECT_EQ("is not a URL", refusal_of("http://127.0.0.1/a b"));
    EXPECT_EQ("is not a URL", refusal_of("http://127.0.0.1:80\n"));
    EXPECT_EQ("is not a URL", refusal_of("http://127.0.0.1/\x7f"));
}

TEST(TargetUrl, APortThatIsNoNumberAndAHostThatIsNotThereAreRefused) {
    EXPECT_NE("taken", refusal_of("http://127.0.0.1:http"));
    EXPECT_NE("taken", refusal_of("http://127.0.0.1:80x"));
    EXPECT_NE("taken", refusal_of("http://300.0.0.1.invalid"));
    EXPECT_FALSE(refusal_of("http://127.0.0.1:x").empty());
}

}  // namespace
