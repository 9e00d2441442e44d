#pragma once

#include <string>

// AES, Base64 and RSA helpers over libcrypto. Every byte string is a std::string holding
// raw bytes. The AES functions throw std::runtime_error (generateAesKey throws
// std::invalid_argument); callers catch. rsaPublicEncrypt never throws.
namespace talvor::cloudmaterial {

// bits must be 128, 192 or 256; returns bits / 8 random bytes.
std::string generateAesKey(int bits);

// 16 random bytes for the CBC pair.
std::string generateIv();

// AES-256 with PKCS#7 padding. The key is read as raw bytes: AES-256 uses its first 32 bytes,
// and a key shorter than that fails at the initialize step rather than being read past its end.
// The same holds for a CBC iv shorter than 16 bytes. The iv is neither prepended to nor taken
// from the data.
std::string aesEcbEncrypt(const std::string &plain, const std::string &key);
std::string aesEcbDecrypt(const std::string &cipher, const std::string &key);
std::string aesCbcEncrypt(const std::string &plain, const std::string &key, const std::string &iv);
std::string aesCbcDecrypt(const std::string &cipher, const std::string &key, const std::string &iv);

// Standard alphabet with padding. Decoding skips characters outside the alphabet.
std::string base64Encode(const std::string &bytes);
std::string base64Decode(const std::string &text);

// PKCS#1 v1.5 encryption of one block with the public key in pem (a NUL-terminated
// "-----BEGIN PUBLIC KEY-----" block). Returns the Base64 text of the ciphertext, or an empty
// string when the key cannot be read or plain does not fit (more than key size - 11 bytes).
std::string rsaPublicEncrypt(const std::string &plain, const char *pem);

} // namespace talvor::cloudmaterial
