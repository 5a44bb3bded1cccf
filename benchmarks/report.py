"""Tables, goals and plot from what the benchmark programs print.

report.py RESULTS          prints the tables
report.py RESULTS --write  puts them into docs/performance.md and docs/footprint.md, with the plot
"""

import json
import pathlib
import statistics
import sys

DOCS = pathlib.Path(__file__).resolve().parent.parent / "docs"
BEGIN, END = "<!-- figures: begin, by scripts/bench -->\n", "<!-- figures: end -->\n"
SHIPPED, NODELAY = "as shipped", "set_tcp_nodelay true"
VERSIONS = ("", "2.1, ")  # of broker and broker library: what stands before the configuration
TICKS = [2.0 ** power for power in range(-3, 10)]
NOT_PLOTTED = ("broker CPU", "10", "100", "1000")
DOCUMENTS = ("communication", "identification", "status", "link", "10 links", "1000 links", "reply")

# (program, broker, measurement, figure), the reference, what is compared, and the limit: the least
# for a throughput, the most for all else.
GOALS = [
    *((("clients", NODELAY, name, figure), "raw", "ratio", limit) for name, figure, limit in (
        ("values-communication", "throughput", 1.12), ("values-identification", "throughput", 1.12),
        ("throughput-qos0-64", "throughput", 0.95), ("throughput-qos0-1024", "throughput", 0.95),
        ("acknowledge-qos1", "p50", 1 / 0.97), ("acknowledge-qos2", "p50", 1 / 0.97),
        ("request-reply", "p50", 1.04), ("request-reply", "p99", 1.1))),
    *((("clients", SHIPPED, f"throughput-qos{qos}-{size}", "throughput"), "raw", "ratio", 0.88)
      for qos in (0, 1, 2) for size in (64, 1024)),
    (("clients", SHIPPED, "request-reply", "p50"), "raw", "ratio", 0.01),
    (("clients", SHIPPED, "request-reply", "p99"), "raw", "ours", 1000),
    (("clients", SHIPPED, "first-exchanges", "p99"), "raw", "ours", 400),
    (("clients", SHIPPED, "burst-of-four", "p99"), "raw", "ratio", 0.05),
    *((("idle", "", "one more client", figure), "raw", kind, limit)
      for figure, kind, limit in (("threads", "ours", 1), ("descriptors", "ours", 3),
                                  ("heap", "excess", 8), ("resident memory", "excess", 8))),
    *((("documents", "", document, figure), "RapidJSON", "ratio", limit)
      for document in DOCUMENTS for figure, limit in (("write", 0.85), ("read", 0.35))),
    *((("documents", "", value, figure), "by hand", "ratio", 1.05)
      for value in ("two fields", "nine fields") for figure in ("write", "read")),
    *((("dispatch", "", name, "10000"), "10", "ratio", 1.5 if name.startswith("text") else 1.6)
      for name in ("text, the same ten", "text, each in turn", "text, none", "pattern, the first",
                   "pattern, the last", "pattern, each in turn", "pattern, none")),
    *((("paths", "", f"receive {what}", "allocations"), "by hand", "ours", 2)
      for what in ("4 bytes", "1000 bytes", "a status", "an identification")),
]


def number(value):
    """A few digits that say something, whatever the size."""
    return f"{value:.{0 if abs(value) >= 100 else 2 if abs(value) >= 0.1 else 3}f}"


def spread(values, unit):
    """The median, with the lowest and the highest when they differ. Without a unit: a count."""
    write = number if unit else "{:g}".format
    middle, low, high = map(write, (statistics.median(values), min(values), max(values)))
    text = middle if unit in ("", "ratio") else f"{middle} {unit}"
    return text if low == high else f"{text} ({low}..{high})"


class Results:
    def __init__(self, lines):
        self.conditions, self.units, self.values = [], {}, {}
        for line in filter(str.strip, lines):
            row = json.loads(line)
            if "conditions" in row:
                self.conditions.append(row["conditions"])
                continue
            key = row["program"], row["broker"], row["measurement"], row["figure"]
            self.units[key] = row["unit"]
            self.values.setdefault(key, {}).setdefault(row["library"], []).append(row["value"])
        # Dispatch is compared with itself: every number of subscriptions with ten.
        for key in [key for key in self.values if key[0] == "dispatch"]:
            ten = self.values.get((*key[:3], "10"))
            if ten:
                self.values[key]["10"] = ten["ours"]

    def ratios(self, key, reference):
        """Ours to theirs, formed inside each repetition."""
        return [ours / theirs for ours, theirs in zip(
            self.values[key]["ours"], self.values[key][reference]) if theirs]

    def has(self, key, reference):
        return {"ours", reference} <= self.values.get(key, {}).keys()

    def cell(self, key, reference):
        if not self.has(key, reference):
            return "-"
        if self.units[key] == "":  # small counts
            return " to ".join(spread(self.values[key][who], "") for who in ("ours", reference))
        ratios = self.ratios(key, reference)
        return spread(ratios, "ratio") if ratios else "-"

    def own(self, key, library):
        values = self.values.get(key, {}).get(library)
        return spread(values, self.units[key]) if values else "-"

    def rows(self, program):
        return list(dict.fromkeys(key[2:] for key in self.values if key[0] == program))

    def measured(self, key, reference, kind):
        if kind == "ratio":
            return statistics.median(self.ratios(key, reference))
        ours, theirs = (statistics.median(self.values[key][who]) for who in ("ours", reference))
        return ours - theirs if kind == "excess" else ours


def table(title, head, rows):
    if not rows:
        return ""
    lines = [f"\n### {title}\n", head, ["---"] * len(head), *rows]
    return "\n".join(x if isinstance(x, str) else f"| {' | '.join(x)} |" for x in lines) + "\n"


def comparison(results, title, program, columns):
    """columns: heading, broker, reference."""
    return table(title, ["measurement", "figure", *(column[0] for column in columns)],
                 [[*row, *(results.cell((program, broker, *row), reference)
                           for _, broker, reference in columns)]
                  for row in results.rows(program) if row[0] != "first-exchanges"])


def absolute(results, title, program, measurement=None):
    """Each library's own figures, without a comparison."""
    keys = [key for key in results.values if key[0] == program and measurement in (None, key[2])]
    figures = list(dict.fromkeys(key[3] for key in keys))
    rows = dict.fromkeys((key[2], key[1], library) for key in keys
                         for library in results.values[key])
    return table(title, ["measurement", "who", *figures],
                 [[f"{name}, broker {broker}" if broker else name, library,
                   *(results.own((program, broker, name, figure), library) for figure in figures)]
                  for name, broker, library in rows])


def goals(results):
    rows = []
    words = {"ours": "at most", "excess": "at most that and"}
    every_goal = [((key[0], version + key[1], *key[2:]), *rest) for version in VERSIONS
                  for key, *rest in GOALS if key[1] or not version]
    for key, reference, kind, limit in every_goal:
        if not results.has(key, reference):
            continue
        more_is_better = key[3] == "throughput"
        value = results.measured(key, reference, kind)
        kept = value >= limit if more_is_better else value <= limit
        what = words.get(kind, "at least" if more_is_better else "at most")
        unit = "ratio" if kind == "ratio" else results.units[key]
        rows.append([key[2], key[3], key[1] or "-", reference, f"{what} {round(limit, 2):g}",
                     spread([value], unit), "yes" if kept else "**no**"])
    return table("Goals", ["measurement", "figure", "broker", "beside", "goal", "measured", "kept"], rows)


def performance(results):
    brokers = [(f"{version}{broker}: to {who}", version + broker, who)
               for who in ("raw", "Paho") for broker in (SHIPPED, NODELAY) for version in VERSIONS]
    brokers = [column for column in brokers if any(key[1] == column[1] for key in results.values)]
    cases = dict.fromkeys(name for name, count in results.rows("dispatch") if count.isdigit())
    return "".join((
        "Conditions: ", "; ".join(dict.fromkeys(results.conditions)), ".\n",
        "\n![How many times better than the others](performance.png)\n",
        goals(results),
        comparison(results, "Clients", "clients", brokers),
        comparison(results, "Clients over TLS", "tls",
                   [column for column in brokers if column[2] == "raw"]),
        absolute(results, "The first 24 requests of a connection", "clients", "first-exchanges"),
        comparison(results, "One more client that is connected and does nothing", "idle",
                   [("to raw", "", "raw"), ("to Paho", "", "Paho")]),
        comparison(results, "Documents", "documents",
                   [("to RapidJSON", "", "RapidJSON"), ("to by hand", "", "by hand")]),
        table("Dispatch", ["messages", "100", "1000", "10000 subscriptions, to 10"],
              [[name, *(results.cell(("dispatch", "", name, n), "10")
                        for n in ("100", "1000", "10000"))] for name in cases]),
        absolute(results, "Heap of a subscription", "dispatch", "heap of a subscription"),
        comparison(results, "Ways in and out, in process", "paths", [("to by hand", "", "by hand")]),
        absolute(results, "Time base", "time-base")))


def footprint(results):
    return "".join((absolute(results, "The libraries", "footprint"),
                    absolute(results, "One more idle client, amd64", "idle"),
                    absolute(results, "One more idle client, armhf", "idle-armhf")))


def plot(results, path):
    """One panel for each program and broker: how many times better ours is, on a doubling scale."""
    import matplotlib
    matplotlib.use("Agg")
    from matplotlib import pyplot

    panels = {}  # title: {row: {reference: how many times better ours is, by repetition}}
    for key, values in results.values.items():
        for reference in values.keys() - {"ours"} if "ours" in values else ():
            ratios = results.ratios(key, reference)
            if results.units[key] and ratios and all(ratios) and key[3] not in NOT_PLOTTED:
                row = panels.setdefault(" ".join(key[:2]), {}).setdefault(", ".join(key[2:]), {})
                row[f"to {reference}"] = ratios if key[3] == "throughput" else [1 / ratio for ratio in ratios]
    heights = [len(rows) + 5 for rows in panels.values()]
    figure, axes = pyplot.subplots(len(panels), 1, squeeze=False, layout="constrained", sharex=True,
                                   figsize=(8, 0.14 * sum(heights)), height_ratios=heights)
    for (title, rows), axis in zip(panels.items(), axes.flat):
        references = sorted({reference for row in rows.values() for reference in row})
        for y, row in enumerate(rows.values()):
            for reference, values in row.items():
                better = [min(max(value, TICKS[0]), TICKS[-1]) for value in values]
                color = f"C{references.index(reference)}"
                axis.plot([min(better), max(better)], [y, y], color=color, linewidth=1)
                axis.plot(statistics.median(better), y, "o", color=color, markersize=3)
        axis.set(xscale="log", xlim=(1 / 8, 512))
        axis.set_xticks(TICKS, [f"{tick:g}" if tick >= 1 else f"1/{1 / tick:g}" for tick in TICKS])
        axis.axvline(1, color="black", linewidth=0.8)
        axis.set_yticks(range(len(rows)), rows, fontsize=6)
        axis.invert_yaxis()
        axis.tick_params(axis="x", labelsize=6, labelbottom=True)
        axis.set_title(f"{title}: right of 1 is better", fontsize=8)
        axis.legend([axis.plot([], [], f"C{i}o", markersize=3)[0] for i in range(len(references))],
                    references, fontsize=6)
    figure.savefig(path, dpi=80)


def replace_figures(page, figures):
    text = page.read_text()
    before, rest = text.split(BEGIN)
    page.write_text(before + BEGIN + figures + END + rest.split(END)[1])


def main(arguments):
    results = Results(pathlib.Path(arguments[0]).read_text().splitlines())
    if "--write" in arguments:
        replace_figures(DOCS / "performance.md", performance(results))
        replace_figures(DOCS / "footprint.md", footprint(results))
        plot(results, DOCS / "performance.png")
    else:
        print(performance(results) + footprint(results))


if __name__ == "__main__":
    main(sys.argv[1:])
