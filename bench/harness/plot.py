"""Pictures of the results, each as PNG and SVG."""

import statistics

import matplotlib

matplotlib.use("svg")
matplotlib.rcParams["svg.hashsalt"] = "velm"
import matplotlib.pyplot as plt  # noqa: E402


def bars(axes, result):
    row = result.row
    names = [name for name in result.results if result.values(name)]
    middles = [statistics.median(result.values(name)) for name in names]
    axes.barh(names, middles, color=["#1f77b4" if name == row.subject else "#b0b0b0" for name in names])
    for place, middle in enumerate(middles):
        axes.text(middle, place, f" {middle:,.0f}" if middle >= 100 else f" {middle:.3g}", va="center", fontsize=8)
    axes.invert_yaxis()
    axes.set_xscale("log" if max(middles) > 30 * min(middles) > 0 else "linear")
    axes.margins(x=0.2)
    axes.set_title(f"{row.title} ({row.unit})", fontsize=9, loc="left")
    axes.tick_params(labelsize=8)
    axes.spines[["top", "right"]].set_visible(False)


def save(figure, directory, name):
    figure.tight_layout()
    for kind in ("png", "svg"):
        figure.savefig(directory / f"{name}.{kind}", dpi=110, metadata={"Date": None} if kind == "svg" else None)
    plt.close(figure)


def plot(results, directory):
    """One picture for each group of rows: those whose names begin alike."""
    directory.mkdir(parents=True, exist_ok=True)
    groups = {}
    for result in results:
        if any(result.values(name) for name in result.results):
            groups.setdefault(result.row.name.split("-")[0], []).append(result)
    for name, group in groups.items():
        figure, all_axes = plt.subplots(len(group), 1, squeeze=False, figsize=(
            7, 0.6 * len(group) + sum(0.28 * len(result.results) for result in group)))
        for axes, result in zip(all_axes[:, 0], group):
            bars(axes, result)
        save(figure, directory, name)
