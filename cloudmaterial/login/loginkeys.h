#pragma once

namespace talvor::cloudmaterial {

// The cloud's public key for what the login encrypts (the password, the device signature):
// one SubjectPublicKeyInfo block, RSA 2048, its Base64 body on a single line.
// The local cloud (cloudsim/keys/login-private.pem) holds the matching private key.
inline constexpr const char loginPublicKey[] =
    "-----BEGIN PUBLIC KEY-----\n"
    "MIIBIjANBgkqhkiG9w0BAQEFAAOCAQ8AMIIBCgKCAQEAk4XR0gR5uggcdUQGQHNwzsksaJ/UT73uuSk1OC23dS7D8iWYt8aREJmW7W/"
    "8GJNzcikeD7brBR85qqVnPTPJcuCO5swNqJGvKR6+zcDUuDPUscrid9+zgoH1GjAJyclyZTcw2oHHYl/he3/"
    "KH+ZYUS5BbszM53Q8yoBdsER4IxBYP6ngtkAAoZMvCkPf9h81uvL74jyrGBtdBOD6fFQTF4QCKjWqBL0SL5fqY3nsyS+"
    "OceVPWBpxWYQE2ZDY0xdzu3s5Eu0XF44MAlUFkrMQy9z/"
    "+c7K1CqirDnwjTTgt9h0KvxDFI5bqVjCl9ThifmoJWYWC7mlzewDVHdTHIamgQIDAQAB\n"
    "-----END PUBLIC KEY-----";

} // namespace talvor::cloudmaterial
