// The server's side of the key exchange, as devkit/engine/KEY_EXCHANGE.md describes it,
// and of the channel under its keys.
//
// The functions keep no state; bytes are in strings. They throw a PeerError. It is a test
// peer: it says in words why a message is wrong, which a server must not tell strangers.
#ifndef CORVANE_PEER_KE_SERVER_H
#define CORVANE_PEER_KE_SERVER_H

#include <string>

#include "certificates.h"
#include "engine/key_exchange/ke_protocol.h"

struct ServerAnswer {
    std::string random;
    std::string signingCertificate;  // DER
    std::string encryptionCertificate;
    std::string signature;
};

// Answers a client's hello with a fresh random.
ServerAnswer answerHello(const ServerCredentials& server, const std::string& hello);

// The server's signature alone, over whatever random and certificate are given.
std::string signExchange(const Credential& signing, const std::string& hello,
                         const std::string& serverRandom, const std::string& certificate);

// The channel's keys from the client's key-exchange message. `serverRandom` is the
// answer's.
ChannelKeys acceptKeyExchange(const ServerCredentials& server, const std::string& hello,
                              const std::string& serverRandom, const std::string& message);

// For keys that a state file has kept.
ChannelKeys restoreKeys(KeyKind kind, const std::string& block);

enum class Direction { ToServer, ToClient };

// nonce || ciphertext || tag. The server seals for the client and opens what is for the
// server; a test may want it otherwise.
std::string sealMessage(const ChannelKeys& keys, const std::string& text,
                        Direction direction = Direction::ToClient);
std::string openMessage(const ChannelKeys& keys, const std::string& message,
                        Direction direction = Direction::ToServer);

std::string channelHmac(const ChannelKeys& keys, const std::string& data);
std::string channelCmac(const ChannelKeys& keys, const std::string& data);

#endif
