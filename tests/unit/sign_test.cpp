// Signatures are checked against the public key with OpenSSL's own
// verification, independently of the signing code.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include "file.h"
#include "sign.h"
#include "strutil.h"

namespace {

struct Keys {
    std::string private_pem;
    EVP_PKEY* pkey = nullptr;
};

const Keys& test_keys() {
    static Keys keys = [] {
        Keys k;
        EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new_id(EVP_PKEY_RSA, nullptr);
        EVP_PKEY_keygen_init(ctx);
        EVP_PKEY_CTX_set_rsa_keygen_bits(ctx, 2048);
        EVP_PKEY_keygen(ctx, &k.pkey);
        EVP_PKEY_CTX_free(ctx);
        BIO* bio = BIO_new(BIO_s_mem());
        PEM_write_bio_RSAPrivateKey(bio, EVP_PKEY_get0_RSA(k.pkey), nullptr, nullptr, 0, nullptr,
                                    nullptr);
        char* data = nullptr;
        long len = BIO_get_mem_data(bio, &data);
        k.private_pem.assign(data, static_cast<size_t>(len));
        BIO_free(bio);
        return k;
    }();
    return keys;
}

std::string unhex(const std::string& hex) {
    std::string out;
    for (size_t i = 0; i + 1 < hex.size(); i += 2)
        out += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    return out;
}

bool verifies(const std::string& data, const std::string& hex_signature) {
    std::string sig = unhex(hex_signature);
    EVP_MD_CTX* ctx = EVP_MD_CTX_new();
    EVP_DigestVerifyInit(ctx, nullptr, EVP_sha256(), nullptr, test_keys().pkey);
    int ok = EVP_DigestVerify(ctx, reinterpret_cast<const unsigned char*>(sig.data()), sig.size(),
                              reinterpret_cast<const unsigned char*>(data.data()), data.size());
    EVP_MD_CTX_free(ctx);
    return ok == 1;
}

}  // namespace

TEST(Sign, ProducesVerifiableDeterministicLowerHex) {
    std::string sig = sign_rsa_sha256(test_keys().private_pem, "challenge-123");
    ASSERT_EQ(sig.size(), 512u);
    EXPECT_EQ(sig.find_first_not_of("0123456789abcdef"), std::string::npos);
    EXPECT_EQ(sig, sign_rsa_sha256(test_keys().private_pem, "challenge-123"));
    EXPECT_TRUE(verifies("challenge-123", sig));
    EXPECT_FALSE(verifies("challenge-124", sig));
}

TEST(Sign, SignsTheBytesAsGiven) {
    std::string sig = sign_rsa_sha256(test_keys().private_pem, "abc%20def");
    EXPECT_TRUE(verifies("abc%20def", sig));
    EXPECT_FALSE(verifies("abc def", sig));
    EXPECT_TRUE(verifies("", sign_rsa_sha256(test_keys().private_pem, "")));
    std::string binary("a\0b\n", 4);
    EXPECT_TRUE(verifies(binary, sign_rsa_sha256(test_keys().private_pem, binary)));
}

TEST(SignDeathTest, UnreadableKeysAbort) {
    const char* report = "^lib/sign:[0-9]+: failed precondition 'key != NULL'\n$";
    EXPECT_EXIT(sign_rsa_sha256("", "x"), testing::KilledBySignal(SIGABRT), report);
    std::string pem = test_keys().private_pem;
    EXPECT_EXIT(sign_rsa_sha256(pem.substr(0, pem.size() / 2), "x"),
                testing::KilledBySignal(SIGABRT), report);
    BIO* bio = BIO_new(BIO_s_mem());
    PEM_write_bio_PUBKEY(bio, test_keys().pkey);
    char* data = nullptr;
    long len = BIO_get_mem_data(bio, &data);
    std::string public_pem(data, static_cast<size_t>(len));
    BIO_free(bio);
    EXPECT_EXIT(sign_rsa_sha256(public_pem, "x"), testing::KilledBySignal(SIGABRT), report);
}
