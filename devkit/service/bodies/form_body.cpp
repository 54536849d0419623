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

void add(Fields& fields, Field field, size_t mostFields)
{
    if (!isName(field.name))
        throw Refusal(Reason::bad_name);
    const bool twice = std::any_of(fields.begin(), fields.end(),
                                   [&](const Field& other) { return other.name == field.name; });
    if (twice)
        throw Refusal(Reason::name_twice, field.name, {{"name", field.name}});
    if (fields.size() >= mostFields)
        throw Refusal(Reason::too_many_fields, "", {{"most", std::to_string(mostFields)}});
    field.where = field.name;
    field.inForm = true;
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
    const size_t colon = line.find(':');
    const std::string_view name = line.substr(0, colon);
    if (colon == std::string_view::npos || name.empty() ||
        name.find_first_of(" \t") != std::string_view::npos ||
        std::any_of(line.begin(), line.end(), isControl))
        throw Refusal(Reason::bad_part_header);
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
            throw Refusal(Reason::part_headers_large, "",
                          {{"most", std::to_string(mostHeaderBytes)}});
        if (!line)
            throw Refusal(Reason::part_headers_open);
        if (line->empty())
            break;
        if (headers.size() == mostHeaders)
            throw Refusal(Reason::part_headers_many, "", {{"most", std::to_string(mostHeaders)}});
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
        throw Refusal(Reason::part_without_field);
    field.name = SecretText(*name);
    // The other spelling is for names that are not ASCII.
    const bool isFile = headerParameter(value, "filename").has_value();
    if (headerParameter(value, "filename*").has_value() || isFile)
        field.given = Given::Bytes;
}

// What stands in a part is its value as it is; what says otherwise is refused.
void checkEncoding(std::string_view encoding)
{
    if (!equalIgnoringCase(encoding, "binary") && !equalIgnoringCase(encoding, "8bit"))
        throw Refusal(Reason::part_encoded);
}

void checkType(std::string_view type, const Field& field)
{
    if (equalIgnoringCase(type.substr(0, type.find('/')), "multipart"))
        throw Refusal(Reason::part_of_parts);
    const auto charset = headerParameter(type, "charset");
    if (field.given != Given::Bytes && charset && !equalIgnoringCase(*charset, "utf-8") &&
        !equalIgnoringCase(*charset, "us-ascii"))
        throw Refusal(Reason::part_charset);
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
                throw Refusal(Reason::part_header_twice, "", {{"header", name}});
            found = trimmed(header.value);
        }
        return found;
    };

    Field field;
    const auto disposition = find("Content-Disposition");
    if (!disposition)
        throw Refusal(Reason::part_without_field);
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
            throw Refusal(Reason::bad_escape_in_name);
        auto value = formDecode(equals == std::string_view::npos ? "" : pair.substr(equals + 1));
        if (!value)
            throw Refusal(Reason::bad_escape, isName(*name) ? *name : "");
        add(fields, {*name, *std::move(value), Given::Plain, ""}, mostFields);
    }
    return fields;
}

Fields readMultipart(std::string_view body, const std::string& boundary, size_t mostFields)
{
    if (!isBoundary(boundary))
        throw Refusal(Reason::bad_boundary);
    const std::string mark = "--" + boundary;
    const std::string delimiter = "\r\n" + mark;

    // What stands before the first boundary means nothing.
    if (body.substr(0, mark.size()) == mark)
        body.remove_prefix(mark.size());
    else if (!takeUntil(body, delimiter))
        throw Refusal(Reason::no_boundary);

    Fields fields;
    for (;;) {
        if (body.substr(0, 2) == "--")
            return fields;
        const auto blanks = takeUntil(body, "\r\n");
        if (!blanks || blanks->find_first_not_of(" \t") != std::string_view::npos)
            throw Refusal(Reason::more_at_boundary);
        const auto part = takeUntil(body, delimiter);
        if (!part)
            throw Refusal(Reason::no_last_boundary);
        add(fields, readPart(*part), mostFields);
    }
}
