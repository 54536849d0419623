"""The frame of the reference's pages: one file each, without scripts, pictures or addresses of
others, so that they read the same from a disk, in the dark and on paper."""
import html

STYLE = """
:root { color-scheme: light dark; --text: #1b1f24; --quiet: #57606a; --line: #d5dae0;
  --ground: #ffffff; --raised: #f4f6f8; --link: #0b57b5; --must: #a4262c; }
@media (prefers-color-scheme: dark) {
  :root { --text: #e3e7ec; --quiet: #9ba5b0; --line: #3a424c; --ground: #14181d;
    --raised: #1d232a; --link: #7db4ff; --must: #ff8f8f; } }
* { box-sizing: border-box; }
body { margin: 0; display: grid; grid-template-columns: 19rem minmax(0, 1fr);
  background: var(--ground); color: var(--text); font: 16px/1.5 system-ui, sans-serif; }
nav { position: sticky; top: 0; height: 100vh; overflow: auto; padding: 1.5rem 1rem 2rem 1.5rem;
  border-right: 1px solid var(--line); font-size: .875rem; }
nav ul { list-style: none; margin: 0 0 1rem; padding: 0; }
nav li { padding: .125rem 0; overflow-wrap: anywhere; }
nav p { margin: 0 0 .25rem; font-weight: 600; }
main { max-width: 62rem; padding: 1.5rem 2rem 4rem; min-width: 0; }
h1 { font-size: 1.75rem; line-height: 1.2; margin: 0 0 1rem; }
h2 { font-size: 1.375rem; margin: 3rem 0 1rem; padding-bottom: .25rem;
  border-bottom: 1px solid var(--line); }
h3 { font-size: 1.0625rem; margin: 2.5rem 0 .5rem; overflow-wrap: anywhere; }
h4 { font-size: .875rem; margin: 1rem 0 .25rem; color: var(--quiet); }
p, ul, ol { margin: .5rem 0; max-width: 46rem; }
a { color: var(--link); text-decoration: none; }
a:hover, main p a, main td a { text-decoration: underline; }
code, pre { font: .875em/1.45 ui-monospace, monospace; }
h2 code, h3 code { font-size: 1em; }
h3.group { font-size: 1.1875rem; margin-top: 3rem; }
pre { background: var(--raised); border: 1px solid var(--line); border-radius: 4px;
  padding: .75rem 1rem; overflow-x: auto; }
.wide { overflow-x: auto; }
table { border-collapse: collapse; width: 100%; min-width: 36rem; table-layout: fixed;
  font-size: .9375rem; }
th { text-align: left; font-weight: 600; color: var(--quiet); font-size: .875rem; width: 30%; }
th:last-child { width: 40%; }
th, td { padding: .375rem .75rem .375rem 0; border-bottom: 1px solid var(--line);
  vertical-align: top; overflow-wrap: anywhere; }
.quiet { color: var(--quiet); }
.must { color: var(--must); font-size: .8125rem; }
td .quiet { font-size: .8125rem; }
:target { scroll-margin-top: 1rem; background: var(--raised); }
@media (max-width: 56rem) {
  body { display: block; }
  nav { position: static; height: auto; max-height: 40vh; border: 0;
    border-bottom: 1px solid var(--line); padding: 1rem; }
  nav li { padding: .375rem 0; }
  main { padding: 1rem; } }
@media (max-width: 40rem) {  /* a row's cells below each other */
  table { min-width: 0; }
  tr { display: block; padding: .375rem 0; border-bottom: 1px solid var(--line); }
  tr:first-child { display: none; }
  td { display: block; padding: 0; border: 0; } }
@media print { body { display: block; } nav { display: none; } }
"""


def text(words):
    """For HTML, with `words` between backticks as code."""
    parts = html.escape(str(words), quote=False).split("`")
    return "".join(f"<code>{part}</code>" if i % 2 else part for i, part in enumerate(parts))


def code(words):
    return f"<code>{html.escape(str(words), quote=False)}</code>"


def link(anchor, inner):
    return f'<a href="#{html.escape(anchor)}">{inner}</a>'


def table(head, rows):
    """Of cells that are HTML; nothing if there are no rows."""
    if not rows:
        return ""
    lines = ["<tr>" + "".join(f"<{kind}>{cell}</{kind}>" for cell in row) + "</tr>"
             for kind, row in [("th", head)] + [("td", row) for row in rows]]
    return '<div class="wide"><table>\n' + "\n".join(lines) + "\n</table></div>\n"


def navigation(groups):
    """groups: (title, [(anchor, HTML)])."""
    return "".join(
        f"<p>{text(title)}</p>\n<ul>\n" +
        "".join(f"<li>{link(anchor, inner)}</li>\n" for anchor, inner in rows) + "</ul>\n"
        for title, rows in groups)


def write(path, title, groups, body):
    """Writes a page whose body is HTML."""
    page = ('<!DOCTYPE html>\n<html lang="en">\n<head>\n<meta charset="utf-8">\n'
            '<meta name="viewport" content="width=device-width, initial-scale=1">\n'
            f"<title>{text(title)}</title>\n<style>{STYLE}</style>\n</head>\n<body>\n"
            f'<nav aria-label="Contents">\n{navigation(groups)}</nav>\n<main>\n{body}</main>\n'
            "</body>\n</html>\n")
    with open(path, "w", encoding="utf-8", newline="\n") as out:
        out.write(page)
