// From the body of an HTTP request to the parameters of a request to the plug-in. There
// is no HTTP here but the name of the body's type.
//
// Everything that is wrong is a Refusal that names the field and quotes no value.
#ifndef CORVANE_SERVICE_REQUESTS_REQUEST_BODY_H
#define CORVANE_SERVICE_REQUESTS_REQUEST_BODY_H

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
    SecretText name;  // what is no form at all is read as one long name
    SecretText value;
    Given given = Given::Plain;
    std::string where;  // in the body, for people
};
using Fields = std::vector<Field>;

// One request of a batch.
struct BatchPart {
    std::string name;
    Fields fields;
    std::string where;
};

// An object or a form; no body means no parameters.
Fields readBody(const std::string& contentType, std::string_view body, const BodyLimits& limits);
std::vector<BatchPart> readBatch(const std::string& contentType, std::string_view body,
                                 const BodyLimits& limits);

// The parameters as the plug-in takes them.
struct Prepared {
    SecretPairs parameters;
    std::optional<SecretText> upload;  // the content of the file of root certificates
};

// `fields` are used up.
Prepared prepare(const RequestInfo& request, Fields& fields);

// The parameters that name files of the host.
constexpr const char* rootFileParameter = "strCa_file";
constexpr const char* rootFolderParameter = "strCa_path";

#endif
