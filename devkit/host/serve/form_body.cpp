#include "form_body.h"

#include <algorithm>

#include "codec.h"
#include "json_tree.h"

namespace {

[[noreturn]] void failMultipart(const char* what)
{
    throw Refusal("malformed", "", std::string("the form is not whole: ") + what);
}

void add(Fields& fields, Field field, size_t mostFields)
{
    if (!isName(field.name))
        throw Refusal("malformed", "", "a name is not 1 to 128 printable characters");
    const bool twice = std::any_of(fields.begin(), fields.end(),
                                   [&](const Field& other) { return other.name == field.name; });
    if (twice)
        throw Refusal("duplicate_parameter", field.name, field.name + " is given twice");
    if (fields.size() >= mostFields)
        throw Refusal("too_many_parameters", "",
                      "there are more than " + std::to_string(mostFields) + " parameters");
    field.where = field.name;
    fields.push_back(std::move(field));
}

std::string plusToBlank(std::string_view text)
{
    std::string out(text);
    std::replace(out.begin(), out.end(), '+', ' ');
    return out;
}

// The text up to the mark, which is dropped, or nothing without one.
std::optional<std::string_view> takeUntil(std::string_view& text, std::string_view mark)
{
    const size_t end = text.find(mark);
    if (end == std::string_view::npos)
        return std::nullopt;
    const std::string_view taken = text.substr(0, end);
    text.remove_prefix(end + mark.size());
    return taken;
}

Field readPart(std::string_view part)
{
    Field field;
    bool named = false;
    for (;;) {
        const auto line = takeUntil(part, "\r\n");
        if (!line)
            failMultipart("a part's headers do not end");
        if (line->empty())
            break;
        const size_t colon = line->find(':');
        if (colon == std::string_view::npos)
            failMultipart("a part's header has no colon");
        const std::string_view header = line->substr(0, colon);
        const std::string_view value = line->substr(colon + 1);
        if (equalIgnoringCase(header, "Content-Transfer-Encoding") &&
            !equalIgnoringCase(trimmed(value), "binary") &&
            !equalIgnoringCase(trimmed(value), "8bit"))
            throw Refusal("unsupported_type", "", "a part of the form is encoded once more");
        if (!equalIgnoringCase(header, "Content-Disposition"))
            continue;
        const auto name = headerParameter(value, "name");
        if (named || !name ||
            !equalIgnoringCase(trimmed(value.substr(0, value.find(';'))), "form-data"))
            failMultipart("a part does not say which field it is");
        named = true;
        field.name = *name;
        field.isBytes = headerParameter(value, "filename").has_value();
    }
    if (!named)
        failMultipart("a part does not say which field it is");
    field.value = std::string(part);
    return field;
}

}  // namespace

Fields readUrlEncoded(std::string_view body, size_t mostFields)
{
    Fields fields;
    while (!body.empty()) {
        const std::string_view pair = body.substr(0, body.find('&'));
        body.remove_prefix(std::min(body.size(), pair.size() + 1));
        if (pair.empty())
            continue;
        const size_t equals = pair.find('=');
        const auto name = percentDecode(plusToBlank(pair.substr(0, equals)));
        if (!name)
            throw Refusal("bad_encoding", "", "a name has a percent sign that escapes nothing");
        auto value = equals == std::string_view::npos
                         ? std::optional<std::string>("")
                         : percentDecode(plusToBlank(pair.substr(equals + 1)));
        if (!value)
            throw Refusal("bad_encoding", isName(*name) ? *name : "",
                          "the value has a percent sign that escapes nothing");
        add(fields, {*name, *std::move(value), false, ""}, mostFields);
    }
    return fields;
}

Fields readMultipart(std::string_view body, const std::string& boundary, size_t mostFields)
{
    if (boundary.empty() || boundary.size() > 70)
        throw Refusal("malformed", "", "the boundary of the form is not 1 to 70 characters");
    const std::string mark = "--" + boundary;
    const std::string delimiter = "\r\n" + mark;

    // What stands before the first boundary means nothing.
    if (body.substr(0, mark.size()) == mark)
        body.remove_prefix(mark.size());
    else if (!takeUntil(body, delimiter))
        failMultipart("its boundary is not there");

    Fields fields;
    for (;;) {
        if (body.substr(0, 2) == "--")
            return fields;
        const auto blanks = takeUntil(body, "\r\n");
        if (!blanks || blanks->find_first_not_of(" \t") != std::string_view::npos)
            failMultipart("a boundary's line has more than the boundary");
        const auto part = takeUntil(body, delimiter);
        if (!part)
            failMultipart("its last boundary is not there");
        add(fields, readPart(*part), mostFields);
    }
}

std::optional<std::string> headerParameter(std::string_view value, std::string_view name)
{
    size_t at = value.find(';');
    while (at < value.size()) {
        value = trimmed(value.substr(at + 1));
        const size_t equals = value.find_first_of("=;");
        if (equals == std::string_view::npos)
            return std::nullopt;
        const bool isIt = equalIgnoringCase(trimmed(value.substr(0, equals)), name);
        if (value[equals] == ';') {
            at = equals;
            continue;
        }
        value.remove_prefix(equals + 1);

        std::string found;
        if (!value.empty() && value.front() == '"') {
            size_t end = 1;
            for (; end < value.size() && value[end] != '"'; ++end) {
                // Browsers escape nothing but the quote, and that as %22; others this way.
                if (value[end] == '\\' && end + 1 < value.size() &&
                    (value[end + 1] == '"' || value[end + 1] == '\\'))
                    ++end;
                found += value[end];
            }
            if (end >= value.size())
                return std::nullopt;
            at = value.find(';', end);
        } else {
            at = value.find(';');
            found = std::string(trimmed(value.substr(0, at)));
        }
        if (isIt)
            return found;
    }
    return std::nullopt;
}

bool equalIgnoringCase(std::string_view a, std::string_view b)
{
    const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? c + ('a' - 'A') : c; };
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [&](char x, char y) { return lower(x) == lower(y); });
}

std::string_view trimmed(std::string_view text)
{
    const size_t first = text.find_first_not_of(" \t");
    if (first == std::string_view::npos)
        return {};
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}
