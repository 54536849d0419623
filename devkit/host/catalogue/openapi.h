// The HTTP interface of `corvane-host serve` as an OpenAPI 3.1.0 document, made from the
// catalogue.
#ifndef CORVANE_HOST_CATALOGUE_OPENAPI_H
#define CORVANE_HOST_CATALOGUE_OPENAPI_H

#include <nlohmann/json_fwd.hpp>

nlohmann::ordered_json openApi();

#endif
