"""Pictures of the results in bench.json, each as PNG and SVG."""

import statistics

import matplotlib

matplotlib.use("svg")
matplotlib.rcParams["svg.hashsalt"] = "velm"
matplotlib.rcParams["svg.fonttype"] = "none"
matplotlib.rcParams["font.family"] = "DejaVu Sans"
import matplotlib.pyplot as plt  # noqa: E402

from .contest import measured, number, spread  # noqa: E402

# Which rows share a picture: by the beginnings of their names.
PICTURES = {
    "log": ("line-", "rotation-"),
    "timers": ("scheduler-", "periodic"),
    "agent": ("event", "burst", "idle", "start"),
}
OWN, OTHERS = "#1f77b4", "#b8b8b8"


def bars(axes, row):
    names = [name for name in row["results"] if measured(row, name)]
    middles = [statistics.median(measured(row, name)) for name in names]
    ends = [spread(measured(row, name)) for name in names]
    axes.barh(names, middles, height=0.7, color=[OWN if name.startswith("velm") else OTHERS for name in names],
              xerr=[[max(0, middle - low) for middle, (low, _) in zip(middles, ends)],
                    [max(0, high - middle) for middle, (_, high) in zip(middles, ends)]],
              error_kw={"ecolor": "#505050", "elinewidth": 0.8})
    for place, (middle, (_, high)) in enumerate(zip(middles, ends)):
        axes.annotate(number(middle), (max(middle, high), place), fontsize=8,
                      xytext=(4, 0), textcoords="offset points", va="center")
    axes.invert_yaxis()
    axes.margins(x=0.15)
    axes.set_title(f"{row['title']} ({row['unit']})", fontsize=9, loc="left")
    axes.tick_params(labelsize=8)
    axes.spines[["top", "right"]].set_visible(False)


def save(figure, directory, name):
    figure.tight_layout(h_pad=1.2)
    for kind in ("png", "svg"):
        figure.savefig(directory / f"{name}.{kind}", dpi=110, metadata={"Date": None} if kind == "svg" else None)
    plt.close(figure)


def plot(report, directory):
    """Writes bench-NAME.png and .svg for each picture that has a row in the report; returns what was drawn."""
    directory.mkdir(parents=True, exist_ok=True)
    drawn = []
    for picture, beginnings in PICTURES.items():
        rows = [row for name, row in report["rows"].items()
                if name.startswith(beginnings) and any(measured(row, other) for other in row["results"])]
        if not rows:
            continue
        heights = [0.55 + 0.27 * len(row["results"]) for row in rows]
        figure, all_axes = plt.subplots(len(rows), 1, squeeze=False, figsize=(7.5, sum(heights)),
                                        gridspec_kw={"height_ratios": heights})
        for axes, row in zip(all_axes[:, 0], rows):
            bars(axes, row)
        save(figure, directory, f"bench-{picture}")
        drawn.append(f"bench-{picture}")
    return drawn
