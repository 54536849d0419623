"""Makes a page of headers from Doxygen's XML: headers_page.py XML-FOLDER PAGE.html TITLE HEADER...
What has no comment is left out; a function without one is a failure."""
import os
import sys
import xml.etree.ElementTree as tree

from page import code, text, write

# Doxygen's elements that are HTML's, and those that do not stand in a paragraph.
MARKUP = {"itemizedlist": "ul", "orderedlist": "ol", "listitem": "li",
          "computeroutput": "code", "bold": "strong", "emphasis": "em"}
BLOCKS = ("itemizedlist", "orderedlist", "verbatim", "programlisting")


def markup(element):
    """The HTML of a description. What Doxygen links to is named, not linked."""
    kind = element.tag
    if kind in ("verbatim", "programlisting"):
        return f"<pre>{text(listing(element)).rstrip()}</pre>\n"
    inner = text(element.text or "")
    for child in element:
        if child.tag in BLOCKS:
            inner = inner.rstrip() + "</p>\n" + markup(child) + "<p>"
        else:
            inner += markup(child)
        inner += text(child.tail or "")
    if kind == "para":
        return f"<p>{inner.rstrip()}</p>\n".replace("<p></p>\n", "")
    return f"<{MARKUP[kind]}>{inner}</{MARKUP[kind]}>" if kind in MARKUP else inner


def listing(element):
    if element.tag == "sp":
        return " "
    out = (element.text or "") + "".join(listing(c) + (c.tail or "") for c in element)
    return out + ("\n" if element.tag == "codeline" else "")


def described(element):
    """An element's comment as HTML."""
    return "".join(markup(para) for para in element.findall("detaileddescription/*"))


def plain(element):
    return "".join(element.itertext()).strip() if element is not None else ""


def declaration(member):
    """A function, a variable or a macro as it stands in C, its parameters below each other if they
    are many."""
    name, kind = member.findtext("name"), plain(member.find("type"))
    if member.get("kind") == "define":
        names = [plain(p.find("defname")) for p in member.findall("param")]
        return f"#define {name}({', '.join(names)})"
    start = f"{kind} {name}".replace("* ", "*").replace(" *", "* ") if kind else name
    if member.get("kind") != "function":
        return start + ";"
    words = [(plain(p.find("type")) + " " + plain(p.find("declname"))).replace(" *", "*").strip()
             for p in member.findall("param")]
    line = f"{start}({', '.join(words)});"
    if len(line) <= 80:
        return line
    return f"{start}(\n    " + ",\n    ".join(words) + ");"


def member_section(member):
    comment = described(member)
    name = member.findtext("name")
    if not comment:
        if member.get("kind") == "function":
            sys.exit(f"{name} has no comment")
        return "", []
    if member.get("kind") == "enum":
        rows = "".join(f"    {v.findtext('name')} {plain(v.find('initializer'))},"
                       f" /* {plain(v.find('detaileddescription'))} */\n"
                       for v in member.findall("enumvalue"))
        return f"<pre>enum {{\n{text(rows)}}};</pre>\n{comment}", []
    label = name + ("()" if member.get("kind") == "function" else "")
    return (f'<h3 id="{name}">{code(label)}</h3>\n<pre>{text(declaration(member))}</pre>\n'
            f"{comment}", [(name, text(label))])


def struct_section(compound):
    name = compound.findtext("compoundname")
    rows = [(plain(m.find("type")).replace(" *", "*") + " " + m.findtext("name") + ";",
             plain(m.find("detaileddescription"))) for m in compound.iter("memberdef")]
    width = max(len(field) for field, _ in rows)
    fields = "".join(f"    {field.ljust(width)}  /* {comment} */\n" for field, comment in rows)
    return (f'<h3 id="{name}">{code("struct " + name)}</h3>\n{described(compound)}'
            f"<pre>struct {name} {{\n{text(fields)}}};</pre>\n", [(name, text(name))])


def header_section(folder, file_name):
    """The HTML of a header and the rows for the navigation."""
    index = tree.parse(os.path.join(folder, "index.xml"))
    found = [c.get("refid") for c in index.iter("compound") if c.findtext("name") == file_name]
    compound = tree.parse(os.path.join(folder, found[0] + ".xml")).find("compounddef")
    body = [f'<h2 id="{file_name}">{code(file_name)}</h2>\n', described(compound)]
    rows = [(file_name, "About it")]

    def add(section):
        body.append(section[0])
        rows.extend(section[1])

    for inner in compound.findall("innerclass"):
        path = os.path.join(folder, inner.get("refid") + ".xml")
        add(struct_section(tree.parse(path).find("compounddef")))
    for section in compound.findall("sectiondef"):
        if section.get("kind") == "user-defined":
            title = section.findtext("header")
            body.append(f'<h3 class="group">{text(title)}</h3>\n')
            description = section.find("description")
            body += [markup(para) for para in description] if description is not None else []
        for member in section.findall("memberdef"):
            if member.get("kind") != "typedef":  # a struct's, which has a section
                add(member_section(member))
    return "".join(body), rows


def main():
    folder, page, title, *names = sys.argv[1:]
    body, groups = f"<h1>{text(title)}</h1>\n", []
    for name in names:
        section, rows = header_section(folder, name)
        body += section
        groups.append((name, rows))
    write(page, title, groups, body)


if __name__ == "__main__":
    main()
