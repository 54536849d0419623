// Tests of the key exchange, as far as it goes without the other side.
#ifndef CORVANE_HOST_DOCTOR_KEY_EXCHANGE_ANSWERS_H
#define CORVANE_HOST_DOCTOR_KEY_EXCHANGE_ANSWERS_H

#include "engine_client.h"

Verdict keNew(Client& client);
Verdict keFree(Client& client);
Verdict keSetKeys(Client& client);
Verdict keSetCertificates(Client& client);
Verdict keSetRoots(Client& client);
Verdict keHello(Client& client);
Verdict keExchange(Client& client);

// One of the channel's requests.
Test keChannel(const std::string& name);

#endif
