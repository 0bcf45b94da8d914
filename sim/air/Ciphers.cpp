// SPDX-License-Identifier: MIT
#include "sim/air/Ciphers.h"

#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <stdexcept>
#include <string>

namespace vexasim::air
{

namespace
{

constexpr size_t kTagSize = 4;
constexpr std::uint8_t kUncompressedPoint = 4;
constexpr const char* kCurve = "P-256";

// The DER encoding (RFC 5915) around a private key of P-256; without the public key, which libcrypto
// computes.
const Bytes kDerBeforeKey = {0x30, 0x31, 0x02, 0x01, 0x01, 0x04, 0x20};
const Bytes kDerAfterKey = {0xa0, 0x0a, 0x06, 0x08, 0x2a, 0x86, 0x48, 0xce, 0x3d, 0x03, 0x01, 0x07};

// libcrypto fails here only if it is broken or out of memory.
void require(bool ok, const char* what)
{
    if (!ok) {
        throw std::runtime_error(std::string("libcrypto: ") + what + " failed");
    }
}

int length(size_t size)
{
    return static_cast<int>(size);
}

// Seals, or opens if there is a tag; false if the tag doesn't match. CCM needs the text's length first.
bool ccm(EVP_CIPHER_CTX* context, const Block& key, const std::array<std::uint8_t, 13>& nonce,
         std::uint8_t associated, const std::uint8_t* in, int size, std::uint8_t* out,
         const std::uint8_t* tag)
{
    const int direction = tag == nullptr ? 1 : 0;
    int written = 0;
    require(EVP_CipherInit_ex(context, EVP_aes_128_ccm(), nullptr, nullptr, nullptr, direction) == 1 &&
                EVP_CIPHER_CTX_ctrl(context, EVP_CTRL_AEAD_SET_IVLEN, length(nonce.size()), nullptr) == 1 &&
                EVP_CIPHER_CTX_ctrl(context, EVP_CTRL_AEAD_SET_TAG, length(kTagSize),
                                    const_cast<std::uint8_t*>(tag)) == 1 &&
                EVP_CipherInit_ex(context, nullptr, nullptr, key.data(), nonce.data(), direction) == 1 &&
                EVP_CipherUpdate(context, nullptr, &written, nullptr, size) == 1 &&
                EVP_CipherUpdate(context, nullptr, &written, &associated, 1) == 1,
            "AES-CCM");
    return EVP_CipherUpdate(context, out, &written, in, size) == 1;
}

} // namespace

Block aes128(const Block& key, const Block& block)
{
    const std::shared_ptr<EVP_CIPHER_CTX> context(EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
    Block result{};
    int written = 0;
    require(context &&
                EVP_EncryptInit_ex(context.get(), EVP_aes_128_ecb(), nullptr, key.data(), nullptr) == 1 &&
                EVP_CIPHER_CTX_set_padding(context.get(), 0) == 1 &&
                EVP_EncryptUpdate(context.get(), result.data(), &written, block.data(),
                                  length(block.size())) == 1,
            "AES");
    return result;
}

Block aesCmac(const Block& key, const Bytes& message)
{
    Block result{};
    std::size_t written = 0;
    require(EVP_Q_mac(nullptr, "CMAC", nullptr, "AES-128-CBC", nullptr, key.data(), key.size(),
                      message.data(), message.size(), result.data(), result.size(), &written) != nullptr,
            "AES-CMAC");
    return result;
}

Bytes aesCcmSeal(const Block& key, const std::array<std::uint8_t, 13>& nonce, std::uint8_t associated,
                 const Bytes& plain)
{
    const std::shared_ptr<EVP_CIPHER_CTX> context(EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
    Bytes sealed(plain.size() + kTagSize);
    require(ccm(context.get(), key, nonce, associated, plain.data(), length(plain.size()), sealed.data(),
                nullptr) &&
                EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_GET_TAG, length(kTagSize),
                                    sealed.data() + plain.size()) == 1,
            "AES-CCM");
    return sealed;
}

std::optional<Bytes> aesCcmOpen(const Block& key, const std::array<std::uint8_t, 13>& nonce,
                                std::uint8_t associated, const Bytes& sealed)
{
    if (sealed.size() <= kTagSize) {
        return std::nullopt;
    }
    const std::shared_ptr<EVP_CIPHER_CTX> context(EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
    Bytes plain(sealed.size() - kTagSize);
    const std::uint8_t* tag = sealed.data() + plain.size();
    if (!ccm(context.get(), key, nonce, associated, sealed.data(), length(plain.size()), plain.data(), tag)) {
        return std::nullopt;
    }
    return plain;
}

void fillRandomly(std::uint8_t* bytes, std::size_t size)
{
    require(RAND_bytes(bytes, length(size)) == 1, "random numbers");
}

KeyPair::KeyPair() : KeyPair(EVP_EC_gen(kCurve)) {}

KeyPair::KeyPair(const Scalar& privateKey)
    : KeyPair([&] {
          const Bytes der = encode(kDerBeforeKey, privateKey, kDerAfterKey);
          const std::uint8_t* at = der.data();
          return d2i_PrivateKey(EVP_PKEY_EC, nullptr, &at, static_cast<long>(der.size()));
      }())
{
}

KeyPair::KeyPair(EVP_PKEY* key) : mKey(key, EVP_PKEY_free)
{
    Bytes encoded(1 + 2 * sizeof(Scalar));
    require(mKey && EVP_PKEY_get_octet_string_param(mKey.get(), OSSL_PKEY_PARAM_PUB_KEY, encoded.data(),
                                                    encoded.size(), nullptr) == 1,
            "P-256");
    std::uint8_t form = 0;
    Decoder decoder(encoded);
    decoder(form, mPublic.x, mPublic.y);
}

std::optional<Scalar> KeyPair::agree(const Point& peer) const
{
    const std::shared_ptr<EVP_PKEY> peerKey(EVP_PKEY_new(), EVP_PKEY_free);
    const Bytes encoded = encode(kUncompressedPoint, peer.x, peer.y);
    require(EVP_PKEY_copy_parameters(peerKey.get(), mKey.get()) == 1, "P-256");
    if (EVP_PKEY_set1_encoded_public_key(peerKey.get(), encoded.data(), encoded.size()) != 1) {
        return std::nullopt;
    }
    const std::shared_ptr<EVP_PKEY_CTX> context(EVP_PKEY_CTX_new(mKey.get(), nullptr), EVP_PKEY_CTX_free);
    require(context && EVP_PKEY_derive_init(context.get()) == 1, "ECDH");
    if (EVP_PKEY_derive_set_peer(context.get(), peerKey.get()) != 1) {
        return std::nullopt;
    }
    Scalar secret{};
    std::size_t size = secret.size();
    require(EVP_PKEY_derive(context.get(), secret.data(), &size) == 1 && size == secret.size(), "ECDH");
    return secret;
}

} // namespace vexasim::air
