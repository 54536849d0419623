"""Draws a table over payload size as a chart: chart.py table.tsv "unit of the values" > chart.svg

The table's first column is the size in bytes, each other one a line. Both axes are logarithmic.
Of a column NAME,PART all lines of a NAME have one colour; those of p99 are dashed.
"""

import math
import sys

WIDTH, HEIGHT = 760, 440
LEFT, RIGHT, TOP, BOTTOM = 64, 120, 40, 56
LIGHT = {"ink": "#333", "grid": "#ddd", "page": "#fff", "grey": "#7f7f7f", "blue": "#1f77b4",
         "green": "#2ca02c", "olive": "#8f9012", "red": "#d62728"}
DARK = {"ink": "#e6e6e6", "grid": "#30363d", "page": "#0d1117", "grey": "#a8a8a8",
        "blue": "#6cb6ff", "green": "#7ccf7c", "olive": "#d6d74a", "red": "#ff8a80"}
COLOURS = ["grey", "blue", "green", "olive", "red"]
DASHED = {"memcpy", "skeleton", "p99"}


def size_name(size):
    for unit in ("B", "KiB", "MiB"):
        if size < 1024:
            return f"{size} {unit}"
        size //= 1024
    return f"{size} GiB"


def scheme(colours):
    return "svg { " + "; ".join(f"--{name}: {value}" for name, value in colours.items()) + " }"


def main():
    with open(sys.argv[1]) as table:
        names = table.readline().split()[1:]
        rows = [line.split() for line in table]
    sizes = [int(row[0]) for row in rows]
    parts = [name.split(",") for name in names]
    kinds = list(dict.fromkeys(part[0] for part in parts))
    colours = COLOURS if len(kinds) == len(names) else COLOURS[1:]
    speeds = [[float(row[1 + i]) for row in rows] for i in range(len(names))]

    low = 10 ** math.floor(math.log10(min(map(min, speeds))))
    high = 10 ** math.ceil(math.log10(max(map(max, speeds))))

    def x(size):
        share = math.log(size / sizes[0]) / math.log(sizes[-1] / sizes[0])
        return LEFT + share * (WIDTH - LEFT - RIGHT)

    def y(speed):
        share = math.log(speed / low) / math.log(high / low)
        return HEIGHT - BOTTOM - share * (HEIGHT - TOP - BOTTOM)

    def text(at_x, at_y, content, anchor="middle", colour="ink"):
        print(f'<text x="{at_x:.1f}" y="{at_y:.1f}" text-anchor="{anchor}" '
              f'fill="var(--{colour})">{content}</text>')

    def line(x1, y1, x2, y2):
        print(f'<line x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}" '
              'stroke="var(--grid)"/>')

    print(f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {HEIGHT}" '
          'font-family="sans-serif" font-size="12" role="img" aria-labelledby="title">')
    print(f'<title id="title">{sys.argv[2]}, over payload size</title>')
    print(f"<style>{scheme(LIGHT)} "
          f"@media (prefers-color-scheme: dark) {{ {scheme(DARK)} }}</style>")
    print(f'<rect width="{WIDTH}" height="{HEIGHT}" fill="var(--page)"/>')
    text(LEFT, TOP - 18, sys.argv[2], "start")
    text((LEFT + WIDTH - RIGHT) / 2, HEIGHT - 14, "payload")
    speed = low
    while speed <= high * 1.001:
        line(LEFT, y(speed), WIDTH - RIGHT, y(speed))
        text(LEFT - 8, y(speed) + 4, f"{speed:g}", "end")
        speed *= 10
    for size in sizes:
        line(x(size), TOP, x(size), HEIGHT - BOTTOM)
        text(x(size), HEIGHT - BOTTOM + 18, size_name(size))

    # Names stand at the lines' ends, moved apart where these are close.
    ends = sorted(range(len(names)), key=lambda i: y(speeds[i][-1]))
    label_y = {}
    last = -math.inf
    for i in ends:
        last = label_y[i] = max(y(speeds[i][-1]) + 4, last + 15)
    for i, name in enumerate(names):
        points = " ".join(f"{x(s):.1f},{y(v):.1f}" for s, v in zip(sizes, speeds[i]))
        dash = ' stroke-dasharray="5 4"' if parts[i][-1] in DASHED else ""
        colour = colours[kinds.index(parts[i][0])]
        print(f'<polyline points="{points}" fill="none" stroke="var(--{colour})" '
              f'stroke-width="2"{dash}/>')
        text(WIDTH - RIGHT + 8, label_y[i], " ".join(parts[i]), "start", colour)
    print("</svg>")


main()
