"""Plots as SVG."""

import matplotlib

matplotlib.use("svg")
import matplotlib.pyplot as plt  # noqa: E402  (the backend comes first)

from report.figures import size_text  # noqa: E402


def lines(path, title, x_label, y_label, series, logarithmic_y=True, sizes_on_x=True):
    """`series` is a list of (label, [(x, median, min, max), ...])."""
    figure, axes = plt.subplots(figsize=(9, 5.5))
    for index, (label, points) in enumerate(series):
        if not points:
            continue
        xs, medians, lowest, highest = zip(*points)
        below = [median - low for median, low in zip(medians, lowest)]
        above = [high - median for median, high in zip(medians, highest)]
        axes.errorbar(xs, medians, yerr=[below, above], label=label, capsize=2,
                      marker="osv^D*xP"[index % 8], markersize=4, linewidth=1.2)
    axes.set_xscale("log", base=2)
    if logarithmic_y:
        axes.set_yscale("log")
    else:
        axes.set_ylim(bottom=0)
    ticks = sorted({point[0] for _, points in series for point in points})
    axes.set_xticks(ticks, [size_text(x) if sizes_on_x else str(x) for x in ticks], rotation=30)
    axes.minorticks_off()
    axes.set_xlabel(x_label)
    axes.set_ylabel(y_label)
    axes.set_title(title)
    axes.grid(True, alpha=0.3)
    axes.legend(fontsize=7, ncols=2)
    figure.tight_layout()
    figure.savefig(path)
    plt.close(figure)


def bars(path, title, x_label, rows):
    """`rows` is a list of (label, value), drawn from the top down."""
    figure, axes = plt.subplots(figsize=(9, 0.6 + 0.45 * len(rows)))
    labels, values = zip(*reversed(rows))
    drawn = axes.barh(labels, values)
    axes.bar_label(drawn, fmt="%.2f", padding=3)
    axes.set_xlabel(x_label)
    axes.set_title(title)
    axes.margins(x=0.12)
    figure.tight_layout()
    figure.savefig(path)
    plt.close(figure)
