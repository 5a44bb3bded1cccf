"""Tables, goals and plot from what the benchmark programs print.

report.py RESULTS          prints the tables
report.py RESULTS --write  puts them into docs/performance.md and docs/footprint.md, with the plot
"""

import json
import pathlib
import platform
import statistics
import sys

DOCS = pathlib.Path(__file__).resolve().parent.parent / "docs"
BEGIN, END = "<!-- figures: begin, by scripts/bench -->\n", "<!-- figures: end -->\n"
SHIPPED, NODELAY = "as shipped", "set_tcp_nodelay true"
DOCUMENTS = ("communication", "identification", "status", "link", "10 links", "1000 links", "reply")

# (program, broker, measurement, figure), the reference, what is compared, and the limit: the least
# for a throughput, the most for all else.
GOALS = [
    *((("clients", NODELAY, name, "throughput"), "raw", "ratio", limit)
      for name, limit in (("values-communication", 1.12), ("values-identification", 1.12),
                          ("throughput-qos0-64", 0.95), ("throughput-qos0-1024", 0.95))),
    *((("clients", NODELAY, f"acknowledge-qos{qos}", "p50"), "raw", "ratio", 1.03)
      for qos in (1, 2)),
    (("clients", NODELAY, "request-reply", "p50"), "raw", "ratio", 1.04),
    (("clients", NODELAY, "request-reply", "p99"), "raw", "ratio", 1.1),
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
    *((("dispatch", "", name, "10000"), "10", "ratio", 1.5 if name.startswith("text") else 1.6)
      for name in ("text, the same ten", "text, each in turn", "text, none", "pattern, the first",
                   "pattern, the last", "pattern, each in turn", "pattern, none")),
    *((("paths", "", f"receive {what}", "allocations"), "by hand", "ours", 2)
      for what in ("4 bytes", "1000 bytes", "a status", "an identification")),
]


def number(value):
    """A few digits that say something, whatever the size."""
    if value == round(value) or value >= 100:
        return f"{value:.0f}"
    return f"{value:.3f}" if value < 0.1 else f"{value:.2f}"


def spread(values, unit=""):
    """The median, with the lowest and the highest when they differ."""
    text = number(statistics.median(values)) + (f" {unit}" if unit else "")
    if min(values) == max(values):
        return text
    return f"{text} ({number(min(values))}..{number(max(values))})"


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

    def cell(self, key, reference):
        values = self.values.get(key, {})
        if reference not in values or "ours" not in values:
            return "-"
        if self.units[key] == "":  # small counts
            return " to ".join(number(statistics.median(values[who])) for who in ("ours", reference))
        return spread(self.ratios(key, reference))

    def rows(self, program):
        return list(dict.fromkeys(key[2:] for key in self.values if key[0] == program))

    def measured(self, key, reference, kind):
        ours, theirs = (statistics.median(self.values[key][who]) for who in ("ours", reference))
        return {"ratio": lambda: statistics.median(self.ratios(key, reference)),
                "ours": lambda: ours, "excess": lambda: ours - theirs}[kind]()


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
    """Each library's own figures."""
    keys = [key for key in results.values if key[0] == program and measurement in (None, key[2])]
    return table(title, ["measurement", "figure", "broker", "who", "measured"],
                 [[key[2], key[3], key[1] or "-", library, spread(values, results.units[key])]
                  for key in keys for library, values in results.values[key].items()])


def goals(results):
    rows = []
    words = {"ours": "at most", "excess": "at most that and"}
    for key, reference, kind, limit in GOALS:
        if reference not in results.values.get(key, {}) or "ours" not in results.values[key]:
            continue
        more_is_better = key[3] == "throughput"
        value = results.measured(key, reference, kind)
        kept = value >= limit if more_is_better else value <= limit
        what = words.get(kind, "at least" if more_is_better else "at most")
        unit = "" if kind == "ratio" else f" {results.units[key]}"
        rows.append([key[2], key[3], key[1] or "-", reference, f"{what} {number(limit)}{unit}",
                     number(value), "yes" if kept else "**no**"])
    return table("Goals", ["measurement", "figure", "broker", "beside", "goal", "measured", "kept"],
                 rows)


def behind_paho(results):
    rows = []
    for key, values in results.values.items():
        if {"ours", "Paho"} <= values.keys():
            ours, paho = (statistics.median(values[who]) for who in ("ours", "Paho"))
            if (ours <= paho) if key[3] == "throughput" else (ours >= paho):
                rows.append([key[2], key[3], key[1] or "-", results.cell(key, "Paho")])
    return table("Not ahead of Paho", ["measurement", "figure", "broker", "to Paho"], rows)


def performance(results):
    brokers = [(f"{broker}: to {who}", broker, who) for broker in (SHIPPED, NODELAY)
               for who in ("raw", "Paho")]
    numbers = [row for row in results.rows("dispatch") if row[1].isdigit()]
    cases = dict.fromkeys(name for name, _ in numbers)
    return "".join((
        f"{platform.system()} {platform.release()} {platform.machine()}; ",
        "; ".join(dict.fromkeys(results.conditions)), ".\n",
        "\n![How many times better than the others](performance.png)\n",
        goals(results),
        behind_paho(results),
        comparison(results, "Clients", "clients", brokers),
        absolute(results, "The first 24 requests of a connection", "clients", "first-exchanges"),
        comparison(results, "One more client that is connected and does nothing", "idle",
                   [("to raw", "", "raw"), ("to Paho", "", "Paho")]),
        comparison(results, "Documents", "documents", [("to RapidJSON", "", "RapidJSON")]),
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

    panels = {}
    shown = {"throughput", "client CPU", "p50", "p99", "connect p50", "heap", "resident memory",
             "write", "read", "10000", "processor time"}
    for key, values in results.values.items():
        for reference in values.keys() - {"ours"}:
            if key[3] in shown and "ours" in values:
                ratios = results.ratios(key, reference)
                better = ratios if key[3] == "throughput" else [1 / ratio for ratio in ratios]
                panels.setdefault(" ".join(key[:2]), []).append(
                    (f"{key[2]}, {key[3]}", f"to {reference}", better))
    labels = {title: list(dict.fromkeys(row[0] for row in rows)) for title, rows in panels.items()}
    figure, axes = pyplot.subplots(
        len(panels), 1, squeeze=False, layout="constrained",
        figsize=(8, sum(len(names) + 4 for names in labels.values()) * 0.17),
        height_ratios=[len(names) + 4 for names in labels.values()])
    for (title, rows), axis in zip(panels.items(), axes.flat):
        for reference in sorted({row[1] for row in rows}):
            points = [(statistics.median(better), -labels[title].index(label), better)
                      for label, who, better in rows if who == reference]
            axis.errorbar([x for x, _, _ in points], [y for _, y, _ in points], fmt="o",
                          markersize=3, label=reference,
                          xerr=[[x - min(all_) for x, _, all_ in points],
                                [max(all_) - x for x, _, all_ in points]])
        axis.set_xscale("log", base=2)
        axis.axvline(1, color="black", linewidth=0.8)
        axis.set_yticks([-i for i in range(len(labels[title]))], labels[title], fontsize=6)
        axis.tick_params(axis="x", labelsize=6)
        axis.set_title(f"{title}: right of 1 is better", fontsize=8)
        axis.legend(fontsize=6)
    figure.savefig(path, dpi=90)


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
