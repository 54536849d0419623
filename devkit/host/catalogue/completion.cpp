#include "completion.h"

#include "catalogue.h"
#include "error_codes.h"

namespace {

std::string join(const std::vector<std::string>& words)
{
    std::string line;
    for (const std::string& word : words)
        line += (line.empty() ? "" : " ") + word;
    return line;
}

// The few values of a parameter, or nothing.
std::vector<std::string> valuesOf(const Parameter& parameter)
{
    std::vector<std::string> values;
    for (const Choice& choice : parameter.choices)
        values.emplace_back(choice.value);
    if (values.empty() && parameter.allowed.kind == Allowed::OneOf)
        for (const char* digit = parameter.allowed.digits; *digit != '\0'; ++digit)
            values.emplace_back(1, *digit);
    return values;
}

std::string requestNames()
{
    std::vector<std::string> names;
    for (const RequestInfo& request : catalogue())
        names.emplace_back(request.name);
    return join(names);
}

std::string codes()
{
    std::vector<std::string> numbers;
    for (const ErrorCode& code : errorCodes())
        numbers.push_back(codeText(code));
    for (const ErrorCode& code : hostCodes())
        numbers.push_back(codeText(code));
    return join(numbers);
}

// One row of a "case".
std::string row(const std::string& pattern, const std::string& action)
{
    return "        " + pattern + ") " + action + " ;;\n";
}

// `words` for the parameters of each request, `name=` each.
std::string parameterRows()
{
    std::string rows;
    for (const RequestInfo& request : catalogue()) {
        std::vector<std::string> names;
        for (const Parameter& parameter : request.parameters)
            names.push_back(std::string(parameter.name) + "=");
        if (!names.empty())
            rows += row(request.name, "words='" + join(names) + "'");
    }
    return rows;
}

// `words` for the values of a parameter; requests number them alike.
std::string valueRows()
{
    std::string rows;
    for (const RequestInfo& request : catalogue())
        for (const Parameter& parameter : request.parameters) {
            const std::vector<std::string> values = valuesOf(parameter);
            const std::string line =
                row(std::string(parameter.name) + "=*", "words='" + join(values) + "'");
            if (!values.empty() && rows.find(line) == std::string::npos)
                rows += line;
        }
    return rows;
}

std::string subcommandRows(const std::vector<Subcommand>& subcommands)
{
    std::string rows;
    for (const Subcommand& subcommand : subcommands) {
        std::string action = "options='" + join(subcommand.options) + "'";
        if (subcommand.takesRequest)
            action += "; takes_request=1";
        if (subcommand.takesParameters)
            action += "; takes_parameters=1";
        rows += row(subcommand.name, action);
    }
    return rows;
}

}  // namespace

std::string completionScript(const std::vector<Subcommand>& subcommands)
{
    std::vector<std::string> names;
    for (const Subcommand& subcommand : subcommands)
        names.push_back(subcommand.name);

    return R"(# Completion for corvane-host:  source <(corvane-host completion)

_corvane_host()
{
    # The line's own words: bash would split them at "=".
    local line=${COMP_LINE:0:COMP_POINT} word before="" subcommand="" request="" given
    word=${line##*[[:space:]]}
    for given in ${line%"$word"}; do
        case $given in
        QZ*) request=${request:-$given} ;;
        -*) ;;
        *) case $before in
            "" | --plugin | --params | --engine) ;;
            *) subcommand=${subcommand:-$given} ;;
            esac ;;
        esac
        before=$given
    done

    local words="" options="" takes_request="" takes_parameters=""
    case $subcommand in
)" + subcommandRows(subcommands) +
           R"(    esac
    if [ -z "$subcommand" ]; then
        words=')" +
           join(names) + R"('
    elif [ "$subcommand" = explain ]; then
        words=')" +
           codes() + R"('
    elif [ -n "$takes_request" ] && [ -z "$request" ]; then
        words=')" +
           requestNames() + R"('
    elif [ -n "$takes_parameters" ]; then
        case $request in
)" + parameterRows() +
           R"(        esac
        case $word in
)" + valueRows() +
           R"(        *=*) words="" ;;
        esac
    fi
    case $subcommand:$word in
    explain:*) ;;
    *:-*) words=$options ;;
    esac

    local prefix=${word#*=} candidate
    case $word in
    *=*) ;;
    *) prefix=$word ;;
    esac
    COMPREPLY=()
    for candidate in $words; do
        case $candidate in
        "$prefix"*) COMPREPLY+=("$candidate") ;;
        esac
    done
    case ${COMPREPLY[0]-} in
    *=) compopt -o nospace 2>/dev/null || : ;;
    esac
}
complete -o default -F _corvane_host corvane-host
)";
}
