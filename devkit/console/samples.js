// Sample keys and certificates for the guided flows. EVERYBODY HAS THEM: they protect nothing.
// DER in Base64: private keys in PKCS#8, public keys as SubjectPublicKeyInfo, self-signed
// certificates for a hundred years. Made with openssl genpkey, req -x509, pkcs8 and pkey.

export const sampleRsa = {
    privateKey: ''.concat(
        'MIIEvgIBADANBgkqhkiG9w0BAQEFAASCBKgwggSkAgEAAoIBAQDE3t5rU+9+pe2sbWN9wlMCk+tCLCRtPq/HWWU5',
        'f10mHmPQ2tFN5IO/ksNTetDj/xLH4qm6EACC6Kd3GC99McYC4tBGhIBYlFBtGb42kij0tQ+tsx2rptapuVdcra/W',
        'HG3Ax3MXDMNFsIixargCXIEmH+4n2ZDJ+9Md6D4q4WUUb94iUGduecW/Uf5CywRlD9zEbv3YO/cQtDEwokWIYW6+',
        'OL1nyGPhU55TaXS2DdGWToAMV7gjBS7AEOxHigToWXDdv9eew5Bz5Lc191xaNcCc4MkHxT4B697w+witfb7VUTlv',
        'p0bQ1Ca6Bd/jDd8j1GmFZiqAIPaB9rI3YbuFeHIjAgMBAAECggEAIJgvpgBrFgJd0972inM6cCJSYI3TaBzpWG2G',
        'E1txbia46vLXlXhgkb64RSF/5Uetcdemty4AD6x6UX75Gda8TG0GA67bWw8PM8j/06QmUMGLe3w8zNceElKj0q3U',
        '/3OMfk7nUKklyWt9bjZXidiL72Z49TMRxEdDwF9br5jKtfO3MlH+DlJ5iFFT8mCuNc3Ghv/OkcQv1T86UQNtnWeg',
        'I3jZQYJjKqVdsAYbR7/ciuJbWa4VVCCkZmvMFKsEdLwuRnYfqKNRJ77gIS8URYq+HZQggwSf0h3p6ksjYOvoXg4/',
        'd5BVrAabyHu4/er6/IsPj8pU3eUs9qCJJh1YTNdxiQKBgQDhFM2iOeTYMhBP2fquC0/FhXJfj75lzHD2zGrRwk+l',
        'Lb+hG5V7PIZyVt4prDqrc6yHEuw64LY5vlT/dsIu1ZFDAnE+FjvvatCBSYnc+517/SLDnvRKn9YWXgPbcqmDroQp',
        'jodCFONM4PrgxupdGztW/Kw3hd9kn5FhETOXvP2viwKBgQDf6gKXJMkGisVQd6+6q4Z91dvMW/wAhdbHlJPIK9Jz',
        'LMSLhSxqm2wc0YzOxoJw35IlzQTJfv3FhgqGwFt4CTYr1glKlWyViD8ePwXyfZWZKc4WChLi37bd1rBnfgQneb2n',
        'rwR0syhPzP+W9yUaTgIws6Uu6USU0444reO3ahCayQKBgQCOgfNoYStpTtlRFXxIMdVCBCnUI1izb2uedvKy+Eoh',
        'FQQdZy+PpVSilCl5TRigcU6s/ugepyP5D28ViAWOTZ35RVSZsM4l2gVFtl/ZUF33oOAf50ZY8TZFVyUuDj0RqK74',
        '+Mrepgb8J/3vz0GXzaQWgUgwp0w3k2gigxedXQVp3QKBgHhqNDJsCd+GyU3Yz5wnmhAZ7jYcUY1GbJawBDllt6tQ',
        'q/IMEDLUmnN1DbA1ePiSgtnpQ2XI8VhEGW0WDRqkeYlhdWWyrc5MkwUFB4G8n7LalIWtrTJs9L6gMgW18y33flKr',
        'AE5x+n/P0rOw/TcENJFUSsTLlaIjkxxQB2IfnAZhAoGBAM0EeqxwhEOm+To8xXkH9vavIGlUokwNBgkKCHT8lIJ/',
        '+jlhkquw/TqmpBOWKSBCE1GUP7u5h0FD/AzJcI9S1WgZzDh0vrZoYMJwPIVsKt0D7gKRwwQq9h6BTZfPBSnDYVi6',
        'zhuSjrM1HQR22giCNRqsy1jHZxeBaO01wgYR3vLq'),
    certificate: ''.concat(
        'MIIDMzCCAhugAwIBAgIUQpCMd+gGZgo4Uv3axOyVCDTH0+UwDQYJKoZIhvcNAQELBQAwKDEmMCQGA1UEAwwdU2Ft',
        'cGxlIGZvciB0cnlpbmcsIG5vdCBzZWNyZXQwIBcNMjYxMTIxMTcwMTE4WhgPMjEyNjEwMjgxNzAxMThaMCgxJjAk',
        'BgNVBAMMHVNhbXBsZSBmb3IgdHJ5aW5nLCBub3Qgc2VjcmV0MIIBIjANBgkqhkiG9w0BAQEFAAOCAQ8AMIIBCgKC',
        'AQEAxN7ea1PvfqXtrG1jfcJTApPrQiwkbT6vx1llOX9dJh5j0NrRTeSDv5LDU3rQ4/8Sx+KpuhAAguindxgvfTHG',
        'AuLQRoSAWJRQbRm+NpIo9LUPrbMdq6bWqblXXK2v1hxtwMdzFwzDRbCIsWq4AlyBJh/uJ9mQyfvTHeg+KuFlFG/e',
        'IlBnbnnFv1H+QssEZQ/cxG792Dv3ELQxMKJFiGFuvji9Z8hj4VOeU2l0tg3Rlk6ADFe4IwUuwBDsR4oE6Flw3b/X',
        'nsOQc+S3NfdcWjXAnODJB8U+Aeve8PsIrX2+1VE5b6dG0NQmugXf4w3fI9RphWYqgCD2gfayN2G7hXhyIwIDAQAB',
        'o1MwUTAdBgNVHQ4EFgQUnOulmJspDoadaN16KE3V34xsCbkwHwYDVR0jBBgwFoAUnOulmJspDoadaN16KE3V34xs',
        'CbkwDwYDVR0TAQH/BAUwAwEB/zANBgkqhkiG9w0BAQsFAAOCAQEANpE7djmhK0hlSHGpMYEziWqPgBAukeOhfKPy',
        'UfLmnwqct22gEq6tkjyY3AhtkqoX09+Lh76myjmaG2C5oQwGUehIdCcLM81+6MLHtakXcuklIWcBIDciFsPz5twM',
        '9h/MoN2cu4E2+01OQg082kiGWPjoLRzx+QJgHXx5livg0UKymV9nv7sWRzgWzArXbCxLjyOzxK+Nf6foPhh6n1tw',
        'q7EMSY2w/2rMT6XEcAzI7G0RhJSZnfed7VFLTZSZl97UjrKpi//dSinH+uPSjxNt6g9EQ3CT+ZGdZa7Ye5p4rVvJ',
        'BSOYjIq+gF81T5iGs45LmZvMXQwkBoSH55vZQw1oeA=='),
};

export const sampleSm2 = {
    privateKey: ''.concat(
        'MIGHAgEAMBMGByqGSM49AgEGCCqBHM9VAYItBG0wawIBAQQgLJkdH9kAmMZR+Vssx5xUMrffsubc9eIl3AT3rMi3',
        'an2hRANCAASqbXsgqJ/Vf+oqPmvhZTieZkFcsc/NPVhZIBCdZyyGiAng4eYpAleRhvZWGBwC93A7yiJ2NDa57MiM',
        'wsXY4/QP'),
    publicKey: ''.concat(
        'MFkwEwYHKoZIzj0CAQYIKoEcz1UBgi0DQgAEqm17IKif1X/qKj5r4WU4nmZBXLHPzT1YWSAQnWcshogJ4OHmKQJX',
        'kYb2VhgcAvdwO8oidjQ2uezIjMLF2OP0Dw=='),
    certificate: ''.concat(
        'MIIBqDCCAU2gAwIBAgIUeM1X0CNwt/z/Rr06gd5OihLwrpUwCgYIKoEcz1UBg3UwKDEmMCQGA1UEAwwdU2FtcGxl',
        'IGZvciB0cnlpbmcsIG5vdCBzZWNyZXQwIBcNMjYxMTIxMTcwMTE4WhgPMjEyNjEwMjgxNzAxMThaMCgxJjAkBgNV',
        'BAMMHVNhbXBsZSBmb3IgdHJ5aW5nLCBub3Qgc2VjcmV0MFkwEwYHKoZIzj0CAQYIKoEcz1UBgi0DQgAEqm17IKif',
        '1X/qKj5r4WU4nmZBXLHPzT1YWSAQnWcshogJ4OHmKQJXkYb2VhgcAvdwO8oidjQ2uezIjMLF2OP0D6NTMFEwHQYD',
        'VR0OBBYEFCFIiN9iFX+uiVpO6pnRfdcL2tPJMB8GA1UdIwQYMBaAFCFIiN9iFX+uiVpO6pnRfdcL2tPJMA8GA1Ud',
        'EwEB/wQFMAMBAf8wCgYIKoEcz1UBg3UDSQAwRgIhAJAEWNYXkwlQDl3Za53hZ4jfNgC2UytPn8/G6SlsjJ8HAiEA',
        '/19f2ZLenjl8A+MQU3076frjxsAOk/xJ9cB+LeRFaDI='),
};
