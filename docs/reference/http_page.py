"""Makes a page of an OpenAPI document: http_page.py OPENAPI.json PAGE.html"""
import json
import sys

from page import code, link, table, text, write

METHODS = ("get", "post", "put", "patch", "delete")


def name_of(reference):
    return reference.rsplit("/", 1)[-1]


def is_twin(schema, others):
    """Whether another one takes the same numbers: a text of digits beside an integer, or integers
    that are among the texts."""
    if schema.get("pattern") == "^[0-9]+$":
        return any("minimum" in other for other in others)
    return schema.get("type") == "integer" and any(
        other.get("type") == "string" and
        set(map(str, schema.get("enum", ["none"]))) <= set(other.get("enum", []))
        for other in others)


def alternatives(schemas):
    kinds = []
    for schema in schemas:
        kind = kind_of(schema)
        if kind not in kinds and not is_twin(schema, schemas):
            kinds.append(kind)
    return " or ".join(kinds)


def range_of(schema):
    low, high = schema.get("minimum"), schema.get("maximum")
    if low is None or high is None:
        return ""
    return f"{low:,} to {high:,}"


def kind_of(schema):
    """What a value may be, as HTML."""
    if "$ref" in schema:
        name = name_of(schema["$ref"])
        return link("schema-" + name, text(name))
    for key in ("anyOf", "oneOf"):
        if key in schema:
            return alternatives(schema[key])
    if "const" in schema:
        title = schema.get("title") or schema.get("description")
        return code(schema["const"]) + (" " + text(title) if title else "")
    if "enum" in schema:
        return ", ".join(code(value) for value in schema["enum"])
    kind = schema.get("type", "any value")
    if isinstance(kind, list):
        return " or ".join(text(one) for one in kind)
    if kind == "array":
        return "list of " + kind_of(schema.get("items", {}))
    if kind == "object" and schema.get("properties"):
        members = ", ".join(code(f'"{name}"') + (": " + kind_of(one) if "$ref" in one else "")
                            for name, one in schema["properties"].items())
        return "{" + members + "}"
    if kind == "object" and isinstance(schema.get("additionalProperties"), dict):
        return "object of any names, each " + kind_of(schema["additionalProperties"])
    return range_of(schema) or text(kind)


def member_rows(schema, must):
    """Name, kind and meaning of each member of an object; those that must be there are marked."""
    rows = []
    for name, member in schema.get("properties", {}).items():
        label = code(name)
        if name in schema.get("required", []):
            kind = "must" if must == "required" else "quiet"
            label += f' <span class="{kind}">{must}</span>'
        meaning = text(member.get("description", ""))
        if "default" in member:
            meaning += f' <span class="quiet">If absent: {code(member["default"])}.</span>'
        rows.append((label, kind_of(member), meaning))
    return rows


def members(title, verb, schema):
    rows = member_rows(schema, "required" if verb == "takes" else "always")
    return f"<h4>{title}</h4>\n" + table(("name", verb, "meaning"), rows) if rows else ""


def results_of(schema):
    """What is special of this answer: the members of its results, or its own."""
    if "allOf" not in schema:
        return schema
    return schema["allOf"][-1]["properties"].get("results", {})


def answer_of(response):
    parts = []
    for kind, content in response.get("content", {}).items():
        schema = content["schema"]
        if "$ref" in schema:
            parts.append(f"<p>Answer: {kind_of(schema)}.</p>\n")
        elif kind == "application/json":
            base = [one for one in schema.get("allOf", []) if "$ref" in one]
            title = f"Answer: {kind_of(base[0])}, with these results" if base else "Answer"
            parts.append(members(title, "is", results_of(schema)))
        else:
            parts.append(f"<p>Answer: {text(kind)}.</p>\n")
    return "".join(parts)


def sentence(words):
    words = words.strip()
    return text(words if words.endswith(".") else words + ".")


def operation(document, path, method, entry):
    answers = entry["responses"]
    facts = []
    if "x-corvane-retry" in entry:
        facts.append("Sent again: " + code(entry["x-corvane-retry"]))
    if entry.get("security") == []:
        facts.append("No token")
    content = entry.get("requestBody", {}).get("content", {})
    if content:
        facts.append("Body: " + ", ".join(code(kind.partition("/")[2]) for kind in content))
    headers = [link("header-" + name_of(one["$ref"]), code(document["components"]["parameters"]
               [name_of(one["$ref"])]["name"])) for one in entry.get("parameters", [])]
    if headers:
        facts.append("Headers: " + ", ".join(headers))
    out = [f'<h3 id="{entry["operationId"]}">{code(method.upper() + " " + path)}</h3>\n',
           f'<p>{sentence(entry.get("summary", ""))}</p>\n',
           f'<p class="quiet">{". ".join(facts)}.</p>\n' if facts else ""]
    if "application/json" in content:
        out.append(members("Members of the body", "takes", content["application/json"]["schema"]))
    out.append(answer_of(answers["200"]))
    listed = [link("status-" + status, status) if "$ref" in answer else
              f'{status} ({text(answer["description"])})'
              for status, answer in sorted(answers.items())]
    out.append(f'<p class="quiet">Statuses: {", ".join(listed)}.</p>\n')
    return "".join(out)


def status_rows(responses):
    """A row for each code of a status, as their descriptions have them."""
    rows = []
    for status, response in sorted(responses.items()):
        first = f'<span id="status-{status}">{status}</span>'
        for part in response["description"].split("; "):
            name, colon, meaning = part.partition(": ")
            rows.append((first, code(name) if colon else "", sentence(meaning or part)))
            first = ""
    return rows


def schema_section(name, schema):
    out = [f'<h3 id="schema-{name}">{text(name)}</h3>\n']
    if "description" in schema:
        out.append(f'<p>{sentence(schema["description"])}</p>\n')
    if schema.get("properties"):
        out.append(table(("member", "is", "meaning"), member_rows(schema, "always")))
    else:
        out.append(f"<p>{kind_of(schema)}</p>\n")
    return "".join(out)


def page_of(document):
    """The groups of its navigation and its body."""
    info, components = document["info"], document["components"]
    tags = {}
    for path, item in document["paths"].items():
        for method in METHODS:
            if method in item:
                tag = item[method].get("tags", ["Other"])[0]
                tags.setdefault(tag, []).append((path, method, item[method]))
    groups = [("For all", [("statuses", "Statuses and codes"), ("headers", "Headers"),
                           ("schemas", "Values and answers")])]
    body = [f'<h1>{text(info["title"])} over HTTP</h1>\n',
            f'<p>Version {text(info["version"])}. {sentence(info["description"])}</p>\n',
            "<p>A path needs the token unless it says otherwise: "
            "<code>Authorization: Bearer TOKEN</code>. What the plug-in or the engine refuses has "
            "status 200 and <code>error</code>; what the host refuses, a status of its own. "
            f'Programs go by <code>code</code> and <code>reason</code> of '
            f'{link("schema-Error", "the error")}; texts may change. A parameter takes '
            f'{link("schema-Value", "a value")} in one of several forms.</p>\n']
    for tag, entries in tags.items():
        groups.append((tag, [(entry["operationId"], text(entry["operationId"]))
                             for _, _, entry in entries]))
        body.append(f"<h2>{text(tag)}</h2>\n")
        body += [operation(document, path, method, entry) for path, method, entry in entries]
    body.append('<h2 id="statuses">Statuses and codes</h2>\n' +
                table(("status", "code", "meaning"), status_rows(components["responses"])))
    body.append('<h2 id="headers">Headers</h2>\n' + table(("header", "is", "meaning"), [
        (f'<span id="header-{name}">{code(one["name"])}</span>', kind_of(one["schema"]),
         sentence(one["description"])) for name, one in components["parameters"].items()]))
    body.append('<h2 id="schemas">Values and answers</h2>\n')
    body += [schema_section(name, schema) for name, schema in components["schemas"].items()]
    return groups, "".join(body)


def main():
    with open(sys.argv[1], encoding="utf-8") as file:
        document = json.load(file)
    groups, body = page_of(document)
    write(sys.argv[2], document["info"]["title"] + " over HTTP", groups, body)


if __name__ == "__main__":
    main()
