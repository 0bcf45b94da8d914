// SPDX-License-Identifier: MIT
#include "tests/kit/Cipher.h"

#include <algorithm>
#include <memory>
#include <openssl/evp.h>
#include <stdexcept>

namespace kit
{

namespace
{

using Bytes = std::vector<std::uint8_t>;

const EVP_CIPHER* cipherFor(const Bytes& key)
{
    return key.size() == 16 ? EVP_aes_128_ecb() : key.size() == 24 ? EVP_aes_192_ecb() : EVP_aes_256_ecb();
}

} // namespace

Bytes aesEcb(const Bytes& key, const Bytes& input, Direction direction)
{
    const std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> context(EVP_CIPHER_CTX_new(),
                                                                                  &EVP_CIPHER_CTX_free);
    Bytes output(input.size() + kCipherBytes);
    int length = 0;
    if (EVP_CipherInit_ex(context.get(), cipherFor(key), nullptr, key.data(), nullptr,
                          static_cast<int>(direction)) != 1 ||
        EVP_CIPHER_CTX_set_padding(context.get(), 0) != 1 ||
        EVP_CipherUpdate(context.get(), output.data(), &length, input.data(),
                         static_cast<int>(input.size())) != 1) {
        throw std::runtime_error("libcrypto has no AES in mode ECB");
    }
    output.resize(static_cast<std::size_t>(length));
    return output;
}

vexasim::UpdateKey sharedKey()
{
    constexpr char kKeyFile[] = VEXA_OTA_KEY_FILE; // empty if the build has no key of its own
    const std::string file(kKeyFile);
    return file.empty() ? vexasim::developmentKey() : vexasim::readKeyFile(file);
}

Bytes enciphered(const Bytes& plain, const vexasim::UpdateKey& key)
{
    return aesEcb({key.begin(), key.end()}, plain, Direction::Encipher);
}

Bytes deciphered(const Bytes& cipher, const vexasim::UpdateKey& key)
{
    return aesEcb({key.begin(), key.end()}, cipher, Direction::Decipher);
}

Bytes onAir(Bytes block, const vexasim::UpdateKey& key)
{
    if (block.size() >= kCipherBytes) {
        const Bytes cipher = enciphered(Bytes(block.begin(), block.begin() + kCipherBytes), key);
        std::copy(cipher.begin(), cipher.end(), block.begin());
    }
    return block;
}

} // namespace kit
