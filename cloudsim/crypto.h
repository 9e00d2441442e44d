#pragma once

#include "certificates.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace cloudsim {

// A fresh RSA key pair of the given size. Setting *cancel makes a running generation give
// up soon. Throws std::runtime_error (also when cancelled).
PkeyPtr generateRsaKey(int bits, const std::atomic<bool> *cancel = nullptr);
// A private key from PEM text (PKCS#8 or traditional). Throws std::runtime_error.
PkeyPtr privateKeyFromPem(const std::string &pem);
// The Base64 body of the key's SubjectPublicKeyInfo: one line, no PEM armour.
std::string publicKeyBase64(EVP_PKEY *key);

// RSA PKCS#1 v1.5 decryption; nothing when the ciphertext does not decrypt.
std::optional<std::string> rsaDecrypt(EVP_PKEY *key, const std::string &ciphertext);

// AES-256-ECB with PKCS#7 padding; nothing when the key is not 32 bytes.
std::optional<std::string> aesEcbEncrypt(const std::string &key, const std::string &plain);

std::string base64Encode(const std::string &bytes);
// Standard or URL-safe alphabet, padding optional. Nothing when the text is not Base64.
std::optional<std::string> base64Decode(const std::string &text);

// Lower-case hex of HMAC-SHA256.
std::string hmacSha256Hex(const std::string &key, const std::string &message);
// n random bytes as lower-case hex.
std::string randomHex(std::size_t bytes);
// A random number below bound.
std::uint32_t randomBelow(std::uint32_t bound);

} // namespace cloudsim
