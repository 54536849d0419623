// Chinese texts of the guided flows and of key exchanges by hand, by the English ones.

export const flowTexts = {
    // The frame.
    'Run all steps': '执行全部步骤',
    'Run the other steps': '执行其余步骤',
    'Run one step': '执行一步',
    'Run the next step': '执行下一步',
    'Open in the form': '在表单中打开',
    'Open in the form: {step}': '在表单中打开：{step}',
    'Next in the key exchange': '密钥交换的下一步',
    'Open its form': '打开表单',
    'The form is filled in.': '表单已填好。',
    'Meet me at the old bridge at six. 桥边见。': '六点在老桥见。',
    'letter 7': '第七封信',
    'running': '进行中',
    'done': '完成',
    'failed': '失败',
    'this page': '本页面',
    'the engine': '引擎',
    'the client: the host’s session': '客户端：主机的会话',
    'the server: the peer': '服务器：对端程序',
    'What was sent': '发送的内容',
    'Came back': '返回',
    'Made': '生成',
    'Refused, as it must be.': '被拒绝，正应如此。',
    'It was not refused.': '没有被拒绝。',
    'The same, byte for byte.': '逐字节相同。',
    'They differ.': '两者不同。',
    'All steps went well. The text came back.': '所有步骤都成功。文本还原了。',
    'Stopped at a step that failed.': '停在失败的一步。',
    'This host runs without the bundled peer, so there is no other side to talk to. Start it without “--no-peer”.':
        '此主机没有随附的对端，因此没有可以通信的另一方。启动时请不要加“--no-peer”。',

    // What they say.
    'Text to protect': '要保护的文本',
    'Cipher': '密码算法',
    'Header to authenticate, not to hide': '只认证、不隐藏的头部',
    'Encrypt and decrypt': '加密与解密',
    'Make a key, encrypt a text with it, and get the text back. A forged message is refused.':
        '生成密钥，用它加密文本，再还原文本。伪造的消息会被拒绝。',
    'Symmetric encryption in GCM mode: one key for both sides, and a tag that shows every change.':
        'GCM 模式的对称加密：双方共用一个密钥，任何改动都会被标签发现。',
    'Make a key': '生成密钥',
    'The engine draws a random key of the right length for the cipher.': '引擎为该算法生成长度合适的随机密钥。',
    'Draw an initial value': '生成初始值',
    'Twelve random bytes, made here in the browser. Never use one twice with the same key.':
        '十二个随机字节，在浏览器中生成。同一密钥下切勿重复使用。',
    'Encrypt': '加密',
    'The engine gives the ciphertext, and a tag over ciphertext and header.': '引擎给出密文，以及覆盖密文和头部的标签。',
    'Decrypt': '解密',
    'The engine needs the same key, initial value and header, and the tag.': '引擎需要相同的密钥、初始值和头部，以及标签。',
    'A forged message is refused': '伪造的消息被拒绝',
    'This page flips one bit of the ciphertext. The tag does not fit, so the engine gives no text.':
        '本页面翻转密文中的一位。标签不符，引擎因此不给出任何文本。',
    'The text came back': '文本还原了',
    'This page compares what was decrypted with what was typed.': '本页面比较解密结果与输入的文本。',
    'Public key': '公钥',
    'Anyone may encrypt with the public key; the private key alone decrypts.': '人人可用公钥加密；只有私钥能解密。',
    'For short texts, such as keys: with the RSA pair made here and OAEP, up to 190 bytes.':
        '适合密钥等短文本：用此处生成的 RSA 密钥对和 OAEP，最多 190 字节。',
    'Key pair': '密钥对',
    'RSA, made now by the browser': 'RSA，由浏览器现场生成',
    'SM2, a sample that everybody has': 'SM2，人人都有的示例',
    'Get a key pair': '取得密钥对',
    'The public half may go to anyone; the private half stays with its owner. Here both are DER in Base64; PEM would do as well.':
        '公钥可以给任何人；私钥留在所有者手中。此处两者都是 DER 的 Base64；用 PEM 也可以。',
    'Encrypt with the public key': '用公钥加密',
    'The engine adds random bytes: the same text gives another ciphertext each time.': '引擎会加入随机字节：同一文本每次得到不同的密文。',
    'Decrypt with the private key': '用私钥解密',
    'Only the private half can. If that is stored encrypted, its password is needed too.': '只有私钥能解密。如果私钥是加密保存的，还需要它的口令。',
    'Envelope': '数字信封',
    'Data of any length, sealed for the holder of a certificate.': '任意长度的数据，为证书持有者封装。',
    'The engine encrypts the data with a fresh key, and that key for the recipient’s certificate.':
        '引擎用新密钥加密数据，再为接收者的证书加密该密钥。',
    'Recipient': '接收者',
    'RSA sample, AES-256 in CBC': 'RSA 示例，AES-256 CBC',
    'RSA sample, AES-256 in GCM': 'RSA 示例，AES-256 GCM',
    'SM2 sample, SM4 in CBC': 'SM2 示例，SM4 CBC',
    'Take the recipient’s certificate': '取接收者的证书',
    'A sample with its private key, for trying only: everybody has it, so it protects nothing.':
        '仅供试用的示例证书及其私钥：人人都有，不起任何保护作用。',
    'Seal': '封装',
    'The engine makes a key for this one envelope, encrypts the data with it, and the key for the certificate. The envelope is DER.':
        '引擎专为这个信封生成密钥，用它加密数据，再为证书加密该密钥。信封是 DER 格式。',
    'Open': '打开',
    'The private key opens it. Cipher and mode must be named as they were. The data comes back percent-escaped twice.':
        '用私钥打开。算法和模式必须与封装时一致。返回的数据经过两次百分号转义。',
    'This page compares what was opened with what was typed.': '本页面比较打开的内容与输入的文本。',
    'Key exchange': '密钥交换',
    'Two sides agree on keys over an open line, then write to each other in secret.':
        '双方在公开的线路上商定密钥，然后秘密通信。',
    'A session of the host is the client. The server is a program that comes with the host, the peer, with keys and certificates of its own. What one side computes, the other never sees; only what is shown as sent or received travels.':
        '主机的一个会话是客户端。服务器是随主机提供的程序，即对端，它有自己的密钥和证书。一方计算的内容，另一方看不到；传送的只有显示为发送或返回的内容。',
    'Open a session': '打开会话',
    'The host makes room for one key exchange and gives a token that stands for it. It ends the session after some minutes without use.':
        '主机为一次密钥交换开辟会话，返回代表它的令牌。会话闲置几分钟后由主机结束。',
    'Set the client’s keys': '设置客户端的密钥',
    'One private key for signing, one for decrypting. Here both are a sample that everybody has; the development engine checks them and has no further use for them.':
        '一个私钥用于签名，一个用于解密。此处两者都是人人都有的示例；开发引擎只检查它们，并不另作他用。',
    'Set the client’s certificates': '设置客户端的证书',
    'Each must belong to its key: the session compares them.': '每张证书必须与其密钥相配：会话会作比较。',
    'Get the server’s root certificate': '取得服务器的根证书',
    'The peer made it when it started. In earnest it must reach you by a way that you trust already.':
        '它由对端启动时生成。真实场合必须经由您已信任的途径取得。',
    'Trust the root': '信任根证书',
    'The session will believe a server whose certificates this root has signed. It is uploaded as a file, which the host deletes after the request.':
        '会话会相信证书由此根证书签发的服务器。根证书作为文件上传，请求之后主机即删除。',
    'Say hello': '打招呼',
    'The session draws 32 random bytes, so that no two exchanges are alike. They are not secret.':
        '会话抽取 32 个随机字节，使每次交换都不相同。它们不是机密。',
    'The server answers': '服务器应答',
    'The peer draws 32 random bytes too. It sends them with its two certificates, and signs both random values and the encryption certificate.':
        '对端也抽取 32 个随机字节，连同自己的两张证书一起发送，并对双方的随机数和加密证书签名。',
    'Check the answer, and send a secret': '检查应答，发送秘密',
    'The session checks the certificates against the root, then the signature. Then it draws a secret, derives its keys from it and both random values, and encrypts it for the server’s encryption certificate.':
        '会话先用根证书检查两张证书，再检查签名。然后抽取一个秘密，由它和双方的随机数派生出自己的密钥，并为服务器的加密证书加密这个秘密。',
    'The server takes the secret': '服务器接收秘密',
    'The peer decrypts it with its private key and derives the same keys. The keys themselves have never travelled.':
        '对端用自己的私钥解密，派生出同样的密钥。密钥本身从未传送。',
    'Encrypt for the server': '为服务器加密',
    'The session encrypts your text with the key for this direction.': '会话用此方向的密钥加密您的文本。',
    'The server decrypts': '服务器解密',
    'The peer has the same key and finds your text.': '对端有同一个密钥，得到您的文本。',
    'The server writes back': '服务器回信',
    'The peer encrypts the same text with the key for the other direction.': '对端用另一方向的密钥加密同样的文本。',
    'Decrypt the reply': '解密回信',
    'The session decrypts it with its own copy of that key.': '会话用自己手中的同一密钥解密。',
    'HMAC, by the client': 'HMAC，由客户端计算',
    'HMAC, by the server': 'HMAC，由服务器计算',
    'HMAC: both sides agree': 'HMAC：双方一致',
    'CMAC, by the client': 'CMAC，由客户端计算',
    'CMAC, by the server': 'CMAC，由服务器计算',
    'CMAC: both sides agree': 'CMAC：双方一致',
    'The session computes a check value over the text, under a key that only the two sides have.':
        '会话用只有双方才有的密钥，对文本计算校验值。',
    'The peer computes it over the same text with its own copy of the key.': '对端用自己手中的同一密钥，对同样的文本计算。',
    'This page compares the two check values.': '本页面比较两个校验值。',
    'End the session': '结束会话',
    'The host wipes the session’s keys. From here on its token is refused.': '主机擦除会话的密钥。此后它的令牌不再有效。',
    'It went to the server and back again; this page compares it with what was typed.':
        '它到了服务器，又回来了；本页面与输入的文本作比较。',
};
