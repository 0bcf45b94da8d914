// SPDX-License-Identifier: MIT
#include "sim/air/Ciphers.h"

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>
#include <openssl/rand.h>

#include <stdexcept>
#include <string>

namespace vexasim::air
{

namespace
{

constexpr size_t kTagSize = 4;
constexpr uint8_t kUncompressedPoint = 4;
constexpr const char* kCurve = "P-256";

template <auto function>
struct Release {
    template <class T>
    void operator()(T* object) const
    {
        function(object);
    }
};
template <class T, auto function>
using Owner = std::unique_ptr<T, Release<function>>;

using CipherContext = Owner<EVP_CIPHER_CTX, EVP_CIPHER_CTX_free>;
using KeyContext = Owner<EVP_PKEY_CTX, EVP_PKEY_CTX_free>;
using PublicOrPrivateKey = Owner<EVP_PKEY, EVP_PKEY_free>;

// libcrypto fails here only when it is broken or out of memory.
void require(bool ok, const char* what)
{
    if (!ok)
        throw std::runtime_error(std::string("libcrypto: ") + what + " failed");
}

int length(size_t size)
{
    return static_cast<int>(size);
}

void initCcm(EVP_CIPHER_CTX* context, bool encrypt, const Block& key, const std::array<uint8_t, 13>& nonce,
             const uint8_t* tag)
{
    const int direction = encrypt ? 1 : 0;
    const bool ok =
        EVP_CipherInit_ex(context, EVP_aes_128_ccm(), nullptr, nullptr, nullptr, direction) == 1 &&
        EVP_CIPHER_CTX_ctrl(context, EVP_CTRL_AEAD_SET_IVLEN, length(nonce.size()), nullptr) == 1 &&
        EVP_CIPHER_CTX_ctrl(context, EVP_CTRL_AEAD_SET_TAG, length(kTagSize), const_cast<uint8_t*>(tag)) ==
            1 &&
        EVP_CipherInit_ex(context, nullptr, nullptr, key.data(), nonce.data(), direction) == 1;
    require(ok, "AES-CCM");
}

// The text's length and the associated data come first with CCM; the result
// says whether the text fitted its tag.
bool runCcm(EVP_CIPHER_CTX* context, uint8_t associated, const uint8_t* in, size_t size, uint8_t* out)
{
    int written = 0;
    require(EVP_CipherUpdate(context, nullptr, &written, nullptr, length(size)) == 1 &&
                EVP_CipherUpdate(context, nullptr, &written, &associated, 1) == 1,
            "AES-CCM");
    return EVP_CipherUpdate(context, out, &written, in, length(size)) == 1;
}

Bytes octets(const Point& point)
{
    Encoder encoder;
    encoder(kUncompressedPoint, point.x, point.y);
    return encoder.take();
}

// A key of the curve from its public point and, where it is known, its number.
PublicOrPrivateKey makeKey(const Point& point, const BIGNUM* number)
{
    const Owner<OSSL_PARAM_BLD, OSSL_PARAM_BLD_free> builder(OSSL_PARAM_BLD_new());
    const Bytes encoded = octets(point);
    bool ok = OSSL_PARAM_BLD_push_utf8_string(builder.get(), OSSL_PKEY_PARAM_GROUP_NAME, kCurve, 0) == 1 &&
              OSSL_PARAM_BLD_push_octet_string(builder.get(), OSSL_PKEY_PARAM_PUB_KEY, encoded.data(),
                                               encoded.size()) == 1;
    if (number != nullptr)
        ok = ok && OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_PRIV_KEY, number) == 1;
    const Owner<OSSL_PARAM, OSSL_PARAM_free> parameters(OSSL_PARAM_BLD_to_param(builder.get()));
    const KeyContext context(EVP_PKEY_CTX_new_from_name(nullptr, "EC", nullptr));
    require(ok && parameters && context && EVP_PKEY_fromdata_init(context.get()) == 1, "P-256");
    EVP_PKEY* key = nullptr;
    if (EVP_PKEY_fromdata(context.get(), &key, EVP_PKEY_KEYPAIR, parameters.get()) != 1)
        return nullptr;
    return PublicOrPrivateKey(key);
}

// The public point that belongs to a private number.
Point multiplyGenerator(const BIGNUM* number)
{
    const Owner<EC_GROUP, EC_GROUP_free> group(EC_GROUP_new_by_curve_name(NID_X9_62_prime256v1));
    const Owner<EC_POINT, EC_POINT_free> result(EC_POINT_new(group.get()));
    Bytes encoded(65);
    require(EC_POINT_mul(group.get(), result.get(), number, nullptr, nullptr, nullptr) == 1 &&
                EC_POINT_point2oct(group.get(), result.get(), POINT_CONVERSION_UNCOMPRESSED, encoded.data(),
                                   encoded.size(), nullptr) == encoded.size(),
            "P-256");
    Point point;
    uint8_t form = 0;
    Decoder decoder(encoded);
    decoder(form, point.x, point.y);
    return point;
}

// With the highest bit clear the number is below the order of the curve.
Scalar randomPrivateKey()
{
    Scalar number = randomArray<32>();
    number[0] &= 0x7f;
    return number;
}

} // namespace

Block aes128(const Block& key, const Block& block)
{
    const CipherContext context(EVP_CIPHER_CTX_new());
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
    const Owner<EVP_MAC, EVP_MAC_free> mac(EVP_MAC_fetch(nullptr, "CMAC", nullptr));
    const Owner<EVP_MAC_CTX, EVP_MAC_CTX_free> context(EVP_MAC_CTX_new(mac.get()));
    char cipher[] = "AES-128-CBC";
    const OSSL_PARAM parameters[] = {
        OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_CIPHER, cipher, 0),
        OSSL_PARAM_construct_end(),
    };
    Block result{};
    size_t written = 0;
    require(context && EVP_MAC_init(context.get(), key.data(), key.size(), parameters) == 1 &&
                EVP_MAC_update(context.get(), message.data(), message.size()) == 1 &&
                EVP_MAC_final(context.get(), result.data(), &written, result.size()) == 1,
            "AES-CMAC");
    return result;
}

Bytes aesCcmSeal(const Block& key, const std::array<uint8_t, 13>& nonce, uint8_t associated,
                 const Bytes& plain)
{
    const CipherContext context(EVP_CIPHER_CTX_new());
    initCcm(context.get(), true, key, nonce, nullptr);
    Bytes sealed(plain.size() + kTagSize);
    require(runCcm(context.get(), associated, plain.data(), plain.size(), sealed.data()) &&
                EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_GET_TAG, length(kTagSize),
                                    sealed.data() + plain.size()) == 1,
            "AES-CCM");
    return sealed;
}

std::optional<Bytes> aesCcmOpen(const Block& key, const std::array<uint8_t, 13>& nonce, uint8_t associated,
                                const Bytes& sealed)
{
    if (sealed.size() <= kTagSize)
        return std::nullopt;
    const size_t size = sealed.size() - kTagSize;
    const CipherContext context(EVP_CIPHER_CTX_new());
    initCcm(context.get(), false, key, nonce, sealed.data() + size);
    Bytes plain(size);
    if (!runCcm(context.get(), associated, sealed.data(), size, plain.data()))
        return std::nullopt;
    return plain;
}

Bytes randomBytes(size_t size)
{
    Bytes bytes(size);
    require(RAND_bytes(bytes.data(), length(size)) == 1, "random numbers");
    return bytes;
}

struct KeyPair::Key {
    PublicOrPrivateKey key;
};

KeyPair::KeyPair() : KeyPair(randomPrivateKey()) {}

KeyPair::KeyPair(const Scalar& privateKey) : mKey(std::make_unique<Key>())
{
    const Owner<BIGNUM, BN_clear_free> number(
        BN_bin2bn(privateKey.data(), length(privateKey.size()), nullptr));
    mPublic = multiplyGenerator(number.get());
    mKey->key = makeKey(mPublic, number.get());
    if (!mKey->key)
        throw std::invalid_argument("not a private key of P-256");
}

KeyPair::~KeyPair() = default;

std::optional<Scalar> KeyPair::agree(const Point& peer) const
{
    const PublicOrPrivateKey peerKey = makeKey(peer, nullptr);
    if (!peerKey)
        return std::nullopt;
    const KeyContext context(EVP_PKEY_CTX_new(mKey->key.get(), nullptr));
    require(context && EVP_PKEY_derive_init(context.get()) == 1, "ECDH");
    if (EVP_PKEY_derive_set_peer(context.get(), peerKey.get()) != 1)
        return std::nullopt;
    Scalar secret{};
    size_t size = secret.size();
    require(EVP_PKEY_derive(context.get(), secret.data(), &size) == 1 && size == secret.size(), "ECDH");
    return secret;
}

} // namespace vexasim::air
