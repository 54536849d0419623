#include "form_body.h"

#include <algorithm>

#include "common/codec.h"
#include "common/text.h"
#include "content_type.h"
#include "json_tree.h"

namespace {

// Of one part of a form. With them the time for a part's headers is limited too.
constexpr size_t mostHeaderBytes = 4096;  // with the empty line behind them
constexpr size_t mostHeaders = 16;

[[noreturn]] void failMultipart(const std::string& what)
{
    throw Refusal("malformed", "", "the form is not whole: " + what);
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

// A name or value as it was meant; nothing if a percent sign escapes nothing.
std::optional<SecretText> formDecode(std::string_view text)
{
    SecretText blanks(text);
    std::replace(blanks.begin(), blanks.end(), '+', ' ');
    return percentDecode(blanks);
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

struct PartHeader {
    std::string_view name;
    std::string_view value;
};

PartHeader readHeader(std::string_view line)
{
    const auto isControl = [](char c) {
        return (static_cast<unsigned char>(c) < 0x20 && c != '\t') || c == 0x7F;
    };
    if (std::any_of(line.begin(), line.end(), isControl))
        failMultipart("a part's header has control characters");
    const size_t colon = line.find(':');
    if (colon == std::string_view::npos)
        failMultipart("a part's header has no colon");
    const std::string_view name = line.substr(0, colon);
    if (name.empty() || name.find_first_of(" \t") != std::string_view::npos)
        failMultipart("a part's header has no name, or blanks in it");
    return {name, line.substr(colon + 1)};
}

// Takes the headers of a part and the empty line behind them.
std::vector<PartHeader> takeHeaders(std::string_view& part)
{
    std::string_view lines = part.substr(0, mostHeaderBytes);
    std::vector<PartHeader> headers;
    for (;;) {
        const auto line = takeUntil(lines, "\r\n");
        if (!line && part.size() > mostHeaderBytes)
            failMultipart("a part's headers have more than " + std::to_string(mostHeaderBytes) +
                          " bytes");
        if (!line)
            failMultipart("a part's headers do not end");
        if (line->empty())
            break;
        if (headers.size() == mostHeaders)
            failMultipart("a part has more than " + std::to_string(mostHeaders) + " headers");
        headers.push_back(readHeader(*line));
    }
    part.remove_prefix(static_cast<size_t>(lines.data() - part.data()));
    return headers;
}

std::string_view withoutParameters(std::string_view value)
{
    return trimmed(value.substr(0, value.find(';')));
}

void readDisposition(std::string_view value, Field& field)
{
    const auto name = headerParameter(value, "name");
    if (!name || !equalIgnoringCase(withoutParameters(value), "form-data"))
        failMultipart("a part does not say which field it is");
    field.name = *name;
    // The other spelling is for names that are not ASCII.
    const bool isFile = headerParameter(value, "filename").has_value();
    if (headerParameter(value, "filename*").has_value() || isFile)
        field.given = Given::Bytes;
}

// What stands in a part is its value as it is; what says otherwise is refused.
void checkEncoding(std::string_view encoding)
{
    if (!equalIgnoringCase(encoding, "binary") && !equalIgnoringCase(encoding, "8bit"))
        throw Refusal("unsupported_type", "", "a part of the form is encoded once more");
}

void checkType(std::string_view type, const Field& field)
{
    if (equalIgnoringCase(type.substr(0, type.find('/')), "multipart"))
        throw Refusal("unsupported_type", "", "a part of the form is a form of parts");
    const auto charset = headerParameter(type, "charset");
    if (field.given != Given::Bytes && charset && !equalIgnoringCase(*charset, "utf-8") &&
        !equalIgnoringCase(*charset, "us-ascii"))
        throw Refusal("unsupported_type", "", "a text of the form is not in UTF-8");
}

Field readPart(std::string_view part)
{
    const std::vector<PartHeader> headers = takeHeaders(part);
    const auto find = [&](const char* name) -> std::optional<std::string_view> {
        std::optional<std::string_view> found;
        for (const PartHeader& header : headers) {
            if (!equalIgnoringCase(header.name, name))
                continue;
            if (found)
                failMultipart(std::string("a part has two headers ") + name);
            found = trimmed(header.value);
        }
        return found;
    };

    Field field;
    const auto disposition = find("Content-Disposition");
    if (!disposition)
        failMultipart("a part does not say which field it is");
    readDisposition(*disposition, field);
    if (const auto encoding = find("Content-Transfer-Encoding"))
        checkEncoding(*encoding);
    if (const auto type = find("Content-Type"))
        checkType(*type, field);
    field.value = SecretText(part);
    return field;
}

// RFC 2046, section 5.1.1. No line end is among them, so that boundaries cannot overlap
// and looking for one takes time by the body's length.
bool isBoundary(std::string_view text)
{
    const auto isFit = [](char c) {
        return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
               std::string_view("'()+_,-./:=? ").find(c) != std::string_view::npos;
    };
    return !text.empty() && text.size() <= 70 && text.back() != ' ' &&
           std::all_of(text.begin(), text.end(), isFit);
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
        const auto name = formDecode(pair.substr(0, equals));
        if (!name)
            throw Refusal("bad_encoding", "", "a name has a percent sign that escapes nothing");
        auto value = formDecode(equals == std::string_view::npos ? "" : pair.substr(equals + 1));
        if (!value)
            throw Refusal("bad_encoding", isName(*name) ? *name : "",
                          "the value has a percent sign that escapes nothing");
        add(fields, {*name, *std::move(value), Given::Plain, ""}, mostFields);
    }
    return fields;
}

Fields readMultipart(std::string_view body, const std::string& boundary, size_t mostFields)
{
    if (!isBoundary(boundary))
        throw Refusal("malformed", "",
                      "the boundary of the form is not 1 to 70 of the characters for it");
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
