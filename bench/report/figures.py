"""Numbers of several runs, and how people read them."""

import statistics


def spread(values):
    """Median, smallest and largest of the runs."""
    return {"median": statistics.median(values), "min": min(values), "max": max(values)}


def ratio_text(value):
    return f"{value:.2f}" if value < 10 else f"{value:,.0f}"


def size_text(size):
    if size >= 2**30:
        return f"{size / 2**30:g} GiB"
    if size >= 2**20:
        return f"{size / 2**20:g} MiB"
    if size > 4096 and size % 1024 == 0:
        return f"{size // 1024} KiB"
    return f"{size} B"


def rate_text(bytes_per_second):
    if bytes_per_second >= 1e9:
        return f"{bytes_per_second / 1e9:.2f} GB/s"
    return f"{bytes_per_second / 1e6:.0f} MB/s"


def time_text(nanoseconds):
    if nanoseconds >= 1e6:
        return f"{nanoseconds / 1e6:.2f} ms"
    if nanoseconds >= 1e4:
        return f"{nanoseconds / 1e3:.1f} µs"
    return f"{nanoseconds:.1f} ns"


def table(heads, rows):
    """A Markdown table; the first column is text, the others are numbers."""
    lines = ["| " + " | ".join(heads) + " |", "|---|" + "---:|" * (len(heads) - 1)]
    lines += ["| " + " | ".join(str(cell) for cell in row) + " |" for row in rows]
    return "\n".join(lines)
