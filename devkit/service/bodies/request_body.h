// From the body of an HTTP request to the parameters of a request to the plug-in. Of HTTP only
// the body's content type is known here.
//
// All functions throw a Refusal, which names the field and quotes no value.
#ifndef CORVANE_SERVICE_BODIES_REQUEST_BODY_H
#define CORVANE_SERVICE_BODIES_REQUEST_BODY_H

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/secrets.h"
#include "host/catalogue/catalogue.h"
#include "host/catalogue/http_routes.h"
#include "refusal.h"

struct BodyLimits {
    size_t parameters = 64;
    size_t parameterBytes = size_t{16} << 20;
    size_t batch = mostBatchRequests;
};

// A parameter as it came.
struct Field {
    SecretText name;  // secret, as a body that is no form at all is read as one long name
    SecretText value;
    Given given = Given::Plain;
    std::string where;  // in the body, for messages: "requests[3].parameters.strKey"
    bool inForm = false;
};
using Fields = std::vector<Field>;

// One request of a batch.
struct BatchPart {
    std::string name;
    Fields fields;
    std::string where;
};

// Of a JSON object or a form. An empty body has no parameters.
Fields readBody(const std::string& contentType, SecretText body, const BodyLimits& limits);
std::vector<BatchPart> readBatch(const std::string& contentType, SecretText body,
                                 const BodyLimits& limits);

// The parameters as the plug-in takes them.
struct Prepared {
    SecretPairs parameters;
    std::optional<SecretText> upload;  // the content of the file of root certificates
};

// Moves the values out of `fields`.
Prepared prepare(const RequestInfo& request, Fields& fields);

// The parameters whose values are paths on the host's machine.
constexpr const char* rootFileParameter = "strCa_file";
constexpr const char* rootFolderParameter = "strCa_path";

#endif
