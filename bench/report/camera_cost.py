"""What the example camera costs with any number of clients."""
import json
import pathlib

from shown import paragraph, plotter, shown_bytes, shown_met, shown_time, table

TITLE, MAKE = "The camera and its clients", "scripts/bench --camera"
COMPLETE = 98  # per cent of the pictures: a client's last one may be on its way when counting ends
STRAIGHT = 1.15  # the most that a figure with more clients may lie above the line through the others


def read(file):
    path = pathlib.Path(file)
    return json.loads(path.read_text(encoding="utf-8")) if path.exists() else None


def line_through(points):
    """Slope and start of the straight line with the least squares."""
    count = len(points)
    mean_x, mean_y = sum(x for x, _ in points) / count, sum(y for _, y in points) / count
    spread = sum((x - mean_x) ** 2 for x, _ in points)
    slope = sum((x - mean_x) * (y - mean_y) for x, y in points) / spread if spread else 0.0
    return slope, mean_y - slope * mean_x


def costs(rows):
    """Processor time in ns for each picture, by the number of clients."""
    return [(row["clients"], row["processor"] / row["pictures"] * 1e9) for row in rows]


def memories(rows):
    return [(row["clients"], row["resident"]) for row in rows]


def is_straight(points):
    """Whether what most clients take is no more than the line through all others foretells."""
    *others, (clients, value) = sorted(points)
    if len(others) < 3:
        return None
    slope, start = line_through(others)
    return value <= STRAIGHT * (start + slope * clients)


def shown_straight(points):
    straight = is_straight(points)
    return shown_met(straight) if straight is not None else "too few figures"


def shown_more(difference, clients, shown):
    """What each of the clients adds; nothing where that is less than two runs differ by."""
    if clients == 0:
        return ""
    return shown(difference / clients) if difference > 0 else "not to be told"


def section(file, plot):
    results = read(file)
    if not results or len(results["rows"]) < 2:
        return None
    rows = sorted(results["rows"], key=lambda row: row["clients"])
    alone = rows[0]
    cells = []
    for row, (clients, cost) in zip(rows, costs(rows)):
        more = clients - alone["clients"]
        cells.append([
            str(clients), f"{row['pictures'] / row['seconds']:.1f}",
            "" if row["fewest"] is None else f"{row['fewest'] / row['seconds']:.1f}", shown_time(cost),
            shown_more(cost - costs([alone])[0][1], more, shown_time), shown_bytes(row["resident"]),
            shown_more(row["resident"] - alone["resident"], more, shown_bytes), str(row["threads"])])
    cost_slope, cost_start = line_through(costs(rows))
    memory_slope, memory_start = line_through(memories(rows))
    late = [str(row["clients"]) for row in rows
            if row["fewest"] is not None and 100 * row["fewest"] < COMPLETE * results["rate"] * row["seconds"]]
    lines = [
        *paragraph(
            f"Made by `{MAKE}` on {results['machine']}, {results['date']}: the [camera](camera.md) as it is configured at first,",
            f"at {results['rate']} pictures a second, for {alone['seconds']:.0f} seconds with each number of clients that read",
            f"the stream, in a process of its own, {results['rounds']} times each; of these the one that is in the middle. The",
            "processor's time is that of all the camera's threads, the kernel's work for them included; drawing, encoding and",
            "recording a picture are in it. Memory is what is resident; the sockets' buffers, which are the kernel's, are not in",
            "it."),
        *table(["clients", "pictures a second", "the slowest client's", "processor, a picture", "a picture and client",
                "resident memory", "a client", "threads"], cells), "",
        *paragraph(
            f"The straight lines: {shown_time(cost_start)} of processor time a picture and {shown_time(cost_slope)} for each",
            f"client; {shown_bytes(memory_start)} of memory and {shown_bytes(memory_slope)} for each client."),
        *paragraph(
            f"Goal: linear, which is that the most clients take at most {STRAIGHT} times what the line through the others",
            f"foretells. Processor time: {shown_straight(costs(rows))}, memory: {shown_straight(memories(rows))}.",
            "These two are measured by this command alone. A test counts that with 1 and with 16 clients a picture is encoded",
            "once and sent once to each of them, unless it is skipped.",
            f"Each client got at least {COMPLETE} % of the pictures that the rate makes in that time." if not late else
            f"**Some client got less than {COMPLETE} % of the pictures** with: {', '.join(late)}.")]
    if plot:
        lines += [f"![Cost and memory against clients]({plot})", ""]
    return lines


def draw(file, target):
    results = read(file)
    if not results or len(results["rows"]) < 2:
        return False
    plt = plotter()

    figure, axes = plt.subplots(1, 2, figsize=(10, 3.6))
    drawings = ((axes[0], costs(results["rows"]), 1e6, "ms of processor time a picture"),
                (axes[1], memories(results["rows"]), 1024 * 1024, "MiB resident"))
    for axis, points, unit, title in drawings:
        slope, start = line_through(points)
        ends = [0, max(x for x, _ in points)]
        axis.plot(ends, [(start + slope * x) / unit for x in ends], linewidth=1, label="straight line")
        axis.plot([x for x, _ in points], [y / unit for _, y in points], "o", label="measured")
        axis.set_ylim(bottom=0)
        axis.set_title(title, fontsize=10)
        axis.set_xlabel("clients")
        axis.grid(True, alpha=0.3)
        axis.legend(fontsize=7)
    figure.tight_layout()
    figure.savefig(target, metadata={"Date": None})
    return True
