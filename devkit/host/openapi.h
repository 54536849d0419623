// The HTTP interface of `corvane-host serve` as an OpenAPI 3.1 document
// (https://spec.openapis.org/oas/v3.1.0), made from the catalogue.
#ifndef CORVANE_HOST_OPENAPI_H
#define CORVANE_HOST_OPENAPI_H

#include <nlohmann/json.hpp>

nlohmann::ordered_json openApi();

#endif
