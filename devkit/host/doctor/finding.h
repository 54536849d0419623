// What a look at the libraries and their surroundings has found: a line of the report.
#ifndef CORVANE_HOST_DOCTOR_FINDING_H
#define CORVANE_HOST_DOCTOR_FINDING_H

#include <string>
#include <vector>

enum class Status {
    Ok,
    Note,  // unusual, or not to be judged from here
    Fail,
};

struct Finding {
    std::string name;  // of what was checked
    Status status = Status::Ok;
    std::string detail;
    std::string hint = {};  // what to do, if something is to be done
    bool loading = false;   // a failure because of which a host cannot load the libraries
};

using Findings = std::vector<Finding>;

#endif
