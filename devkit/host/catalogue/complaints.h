// What looks wrong with the parameters of a request before it is sent. Whoever sends it warns of
// that, and sends it all the same.
#ifndef CORVANE_HOST_CATALOGUE_COMPLAINTS_H
#define CORVANE_HOST_CATALOGUE_COMPLAINTS_H

#include <string>
#include <vector>

#include "catalogue.h"

// What looks wrong with a parameter. The text names the field, never its value. Programs know
// a complaint by its code, and find in `values` what the text fills in beside the field.
struct Complaint {
    std::string field;
    std::string text;
    std::string code;
    Pairs values;
};

// The texts that complaints have behind the field, with {name} for a value.
struct ComplaintKind {
    const char* code;
    const char* text;
};
const std::vector<ComplaintKind>& complaintKinds();

// What looks wrong with the parameters of a request: unknown ones, missing ones, values
// outside their form or set.
std::vector<Complaint> complaints(const RequestInfo& request, const Pairs& parameters);

#endif
