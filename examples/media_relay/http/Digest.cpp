// Digest: sums of OpenSSL.

#include "media_relay/http/Digest.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

namespace relay {

namespace {

std::string toHex(const unsigned char* bytes, size_t size) {
    constexpr char DIGITS[] = "0123456789abcdef";
    std::string text;
    for (size_t i = 0; i < size; ++i) {
        text += DIGITS[bytes[i] >> 4];
        text += DIGITS[bytes[i] & 15];
    }
    return text;
}

/// Empty if this machine's policy does not allow that sum.
std::string sumOf(const EVP_MD* kind, const std::string& text) {
    unsigned char sum[EVP_MAX_MD_SIZE];
    unsigned size = 0;
    const bool good = EVP_Digest(text.data(), text.size(), sum, &size, kind, nullptr) == 1;
    return good ? toHex(sum, size) : "";
}

}  // namespace

std::string digestResponse(const Credentials& credentials, const std::string& method,
                           const std::string& password) {
    const std::string algorithm = inSmallLetters(credentials.parameter("algorithm"));
    const bool isMd5 = algorithm.empty() || algorithm == "md5";
    if ((!isMd5 && algorithm != "sha-256") || credentials.parameter("qop") != "auth") {
        return "";
    }
    const EVP_MD* const kind = isMd5 ? EVP_md5() : EVP_sha256();
    const std::string who = credentials.parameter("username") + ":" + credentials.parameter("realm") + ":";
    const std::string secret = sumOf(kind, who + password);
    const std::string what = sumOf(kind, method + ":" + credentials.parameter("uri"));
    return sumOf(kind, secret + ":" + credentials.parameter("nonce") + ":" + credentials.parameter("nc") +
                           ":" + credentials.parameter("cnonce") + ":auth:" + what);
}

std::string keyedSum(const std::string& key, const std::string& text) {
    unsigned char sum[EVP_MAX_MD_SIZE];
    unsigned size = 0;
    HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()),
         reinterpret_cast<const unsigned char*>(text.data()), text.size(), sum, &size);
    return toHex(sum, size);
}

bool isSame(const std::string& left, const std::string& right) {
    const std::string one = sumOf(EVP_sha256(), left);  // of one length, whatever that of the texts is
    const std::string other = sumOf(EVP_sha256(), right);
    return one.size() == other.size() && !one.empty() &&
           CRYPTO_memcmp(one.data(), other.data(), one.size()) == 0;
}

}  // namespace relay
