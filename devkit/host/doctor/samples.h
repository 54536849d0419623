// Keys, a certificate and what openssl made with them. They are public: good for nothing
// but a look whether an engine works. URL-safe Base64, as requests take it.
//
// Made by OpenSSL 3.0:
//   openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:SM2
//   openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048
//   openssl pkcs8 -topk8 -nocrypt -outform DER                   of both
//   openssl pkeyutl -encrypt                                     with the SM2 key
//   openssl ca -selfsign -startdate 20200101000000Z -enddate 21200101000000Z
//   openssl cms -encrypt -binary -aes-256-cbc -keyopt rsa_padding_mode:oaep
//       -keyopt rsa_oaep_md:sha256                               with the certificate
//   openssl enc -sm4-cbc -K ... -iv ...
#ifndef CORVANE_HOST_DOCTOR_SAMPLES_H
#define CORVANE_HOST_DOCTOR_SAMPLES_H

namespace samples {

// What was encrypted.
constexpr const char* message = "corvane-host doctor";

// PKCS#8, and the public half as SubjectPublicKeyInfo.
constexpr const char* sm2PrivateKey =
    "MIGHAgEAMBMGByqGSM49AgEGCCqBHM9VAYItBG0wawIBAQQgQFd0exgR52hogUMtGbgE8MR2f6XhWGnmQs6gY6_o"
    "ICyhRANCAAQKuFsFtjHzrDZP292CpeD_kFNJbMou46NbFH29Zntk3M5rUupZ5ts-oMvDCDuli8KyOiBySEhBayMn"
    "Mx_qObO1";

constexpr const char* sm2PublicKey =
    "MFkwEwYHKoZIzj0CAQYIKoEcz1UBgi0DQgAECrhbBbYx86w2T9vdgqXg_5BTSWzKLuOjWxR9vWZ7ZNzOa1LqWebb"
    "PqDLwwg7pYvCsjogckhIQWsjJzMf6jmztQ==";

// In ASN.1, C1C3C2.
constexpr const char* sm2Ciphertext =
    "MHwCIQD2neCHYfEzcH4jxKd0GOsvJYIbf84ydIOuK08gHq5wBgIgRmrL9DjyH_Ue-6JTgFy5xiQ9CcaB6e6zc9W9"
    "amgW33sEIK5LBCPEq-JcxvVG6Tq5adO8MF73eZDDlQTOynDhTaVlBBP8PoC5QO1ZMGQz4jXDhVkIyCe3";

// PKCS#8.
constexpr const char* rsaPrivateKey =
    "MIIEvgIBADANBgkqhkiG9w0BAQEFAASCBKgwggSkAgEAAoIBAQDhCopiD4pXCUM8fd5xsYO2rdNKa0maY9-Zj-Ky"
    "fA1wmliccY2wtYyd8FAru0SXDkJjS_yb05UpGchTNKbbJYmC-pgSvHs_Bn_N-ThJ1PrNMQ7YK8LXusypHLZegAd1"
    "sauafEoSpo85BjBY_o8HBqHuObZcgCrL8nXfZ18QrV0toiseVk2FRWySZmTpES7FIPDSnDXZAvT4dEDv-XofF-8l"
    "CAyPufmFg7saA7Bj-oKCDTcEUoeNCJlVDvNWKpKXDtJx0rg7CQFwnI_8zkeuPGkr5TNagrvXqzU196xD1-Nal-U3"
    "DHA5phSrEDAZ9cekuZdqcxZU6hQ0diTcO6ZE8u79AgMBAAECggEAAno8usakBcBG2rgiBktngU_ZlySmO0plMEoa"
    "u09NUJOKbTJ81lixUx3NrCWUJDuWdIRmJAsIxdqQT4YxXhFEOcpreS1VCAUYzBo1ye5L0o17NdsJepmGXkhAI7sy"
    "GdQaaQl8QUdPJVgRmTE4PuIOT1KYVN1eWz9wl8SKEeNutq1glIlYnhCTRp50TNqOKq-EMILWo6D3JVPC-QOaSEct"
    "S2x13oJcQcc6N629vHpDid7Mgfq639D7JOiz9mYubutOiufvgqBFWH__kAAay4RaGJXQkrsjKVVQEp6Ph9RZQUYA"
    "6jEGWLp9LocyLeYZV9KG5LRjDgmG9ul8aDySkbCwOwKBgQD8QqfnMBh0ndtkyv6m2sB_Cb5zXMBn65pkOvAZElrq"
    "3dXPO9ffKLLH5H6ebtaQM9aXtBHuJSNGWXW1rEXlWKO91RuTXS4jseOyoOg3ZujYPfXs5OB8HBNqdWfLVGHBfFWc"
    "r431aU6ve1MXfvMk3A6WnFHuGHwLhdRvSBkDhVT9wwKBgQDkYJYKShujnhBDPvG0ATKKQdlFbJxmRXoh-dghweL0"
    "ztKwp1xrkPrR47_Si5Ugj7wTmDIaiuWD_Io07zV0-EHCCrdZ48l9fmDZGgVcKoi_nC5gWEln1mQFrP_yiawIz3E6"
    "zLRl95tf27DIB07V58KzBKv5yDLHauEbr9FzpGHUPwKBgQDDGc6AWMthTkHD19hSNjfRSTj6Qk8xUKAtSwQtb-vP"
    "YNkfmVohZ3m2bjubz3-1MdKTrBp-BE0e-Mu4QdAhTIf_pxXXyKaJxuijXB2d08LclDdjC7WvZ4uAt-MZ-F5O5hnU"
    "wFZb6yGHSSt_rZjh9ix2Qdp_-oHd65jcpHdsKLAOPwKBgQDhxU5vK6Y5UWi4YgCmuExTfBekV2QigurjrdBqRvfs"
    "lo6ZT0rBmFktqB6ZsZ4iy5XeNSbLMKcHnWCwRg8t7MNtZhSuy88EvixWVDAaVn5MFsWOP5mKCttk9QsupcWqDBHf"
    "VEG_UFKNKG2Swg7AztafDa5KSA1TMakLKvxAe7CvFwKBgEhQmR8MVT-FpnGBcW3eixI1hjc2YWX_QyCXncqVMXtv"
    "muosL6QGu0-KMzXLXmRnkI9mLH6BftAeyMLor2YuDhXOYnT9Fo0HdReYHoS5iVWT544_6QM39or3sBPqRGqVOyTi"
    "rOeQAkNXQo9lH9qTLyrP15w_Bi3e7KulGPBx9ejl";

// Signed by its own key; valid from 2020 to 2119.
constexpr const char* rsaCertificate =
    "MIICxTCCAa0CFCJ9tlli9xvMjKOuuMIjitZckU2gMA0GCSqGSIb3DQEBCwUAMB4xHDAaBgNVBAMME2NvcnZhbmUt"
    "aG9zdCBkb2N0b3IwIBcNMjAwMTAxMDAwMDAwWhgPMjEyMDAxMDEwMDAwMDBaMB4xHDAaBgNVBAMME2NvcnZhbmUt"
    "aG9zdCBkb2N0b3IwggEiMA0GCSqGSIb3DQEBAQUAA4IBDwAwggEKAoIBAQDhCopiD4pXCUM8fd5xsYO2rdNKa0ma"
    "Y9-Zj-KyfA1wmliccY2wtYyd8FAru0SXDkJjS_yb05UpGchTNKbbJYmC-pgSvHs_Bn_N-ThJ1PrNMQ7YK8LXusyp"
    "HLZegAd1sauafEoSpo85BjBY_o8HBqHuObZcgCrL8nXfZ18QrV0toiseVk2FRWySZmTpES7FIPDSnDXZAvT4dEDv"
    "-XofF-8lCAyPufmFg7saA7Bj-oKCDTcEUoeNCJlVDvNWKpKXDtJx0rg7CQFwnI_8zkeuPGkr5TNagrvXqzU196xD"
    "1-Nal-U3DHA5phSrEDAZ9cekuZdqcxZU6hQ0diTcO6ZE8u79AgMBAAEwDQYJKoZIhvcNAQELBQADggEBAJJIehsT"
    "jqKHYioq-4WrpxeupmSHv6zRLtlyJZkp8JC8swuq8DKPXK5tbqruZ-W3JpXKkTbAE2PcsSy2sOayXnpH1j2PhkQ1"
    "erkDll2wvj4CQVmOcOnwSYJEh06KCfZVoHGdAy2ycd5a6UHqj7p3Q2E06RKloevsgI47fGKfmF_iC1H4dJ3xE2Gb"
    "4QdW4cqJ5lOmiwRpHYJ8UDRTNlzW4WmxQQaLxDzjNh_w-4301fay7axW787gxxb6ITnYqYNupoNzO7K6W8oUQi5Y"
    "qCKAqCECsL2z-_fX7Ws43RxVzZ011xo6MomZn1a-MoM9rmJFH9M4LGHPqiW9DLEsgzOiTDA=";

// EnvelopedData (RFC 5652), AES-256-CBC, key transport OAEP with SHA-256.
constexpr const char* rsaEnvelope =
    "MIIB5QYJKoZIhvcNAQcDoIIB1jCCAdICAQAxggF9MIIBeQIBADA2MB4xHDAaBgNVBAMME2NvcnZhbmUtaG9zdCBk"
    "b2N0b3ICFCJ9tlli9xvMjKOuuMIjitZckU2gMDgGCSqGSIb3DQEBBzAroA0wCwYJYIZIAWUDBAIBoRowGAYJKoZI"
    "hvcNAQEIMAsGCWCGSAFlAwQCAQSCAQC9FKEk4wT-h94PlY1rSYqAAnlynVlZ5YEjz_P-bKn5GqjfD8ZMxD_Z4QzQ"
    "12xKb8l-qhuUsbfpQ5HXJGJc5Y-9ryftcbuWk8cb4xpd3jXXJkfqAdPUbTU4-kVWxqJXIrqM94-YsCB2QDkfGKGD"
    "GwPg65RMcyyOlSE-CAeQjCU6lyEeEqVGCsxV8XeScUeygPU7uj210z--cxRR0_JW7Wirx95s-du3rMSTSAHEKd0X"
    "NqfQPoPwZGPw-LErzjbj59X-4iRJ7JohCcOU6roiHcNig2Mcck_OCZnVYnlk0iqraR4kECWMwbbMcEhHbNScOU7C"
    "HZsoMiJqZ5voHDCilq6SMEwGCSqGSIb3DQEHATAdBglghkgBZQMEASoEEAPhQ6NyFgkPTO6tOS38AZmAIBQ0Ov3V"
    "wwzBwtKuc86Ag7_oLl9446o7q8d6E4HXN31m";

// SM4-CBC with PKCS#7, key and initial value as in known_answers.cpp; hex.
constexpr const char* sm4Ciphertext =
    "b7481c6d30f4e595a1da820e60f0894274a76ab7686fd49a16288a72e7a440ac";

}  // namespace samples

#endif
