"""What was changed and how it was proven, as text and as a page."""

import io

import rich.box
import rich.console
import rich.markup
import rich.table

WIDTH = 100


def show(result, screen):
    screen.print(
        table("Before", ["name", "type", "shape"], map(port_row, result.before))
    )
    screen.print(
        table(
            "States", ["input", "goes on in output", "starts as"], result.states
        )
    )
    if result.changes:
        screen.print("[bold]Changes")
        for change in result.changes:
            screen.print(f"  - {change}", markup=False)
        screen.print(
            table(
                "After", ["name", "type", "shape"], map(port_row, result.after)
            )
        )
    else:
        screen.print("The model fits as it is; it is copied unchanged.")
    screen.print(
        table(
            "Proof: the original stream by stream, the prepared model in batches",
            ["name", "", "largest difference", "relative", "allowed", ""],
            map(difference_row, result.differences),
        )
    )
    screen.print(cost_table(result))


def table(title, columns, rows):
    result = rich.table.Table(
        title=title,
        title_justify="left",
        title_style="bold",
        box=rich.box.SIMPLE,
    )
    for column in columns:
        result.add_column(column, overflow="fold")
    for row in rows:
        result.add_row(*map(rich.markup.escape, row))
    return result


def port_row(port):
    shape = "unknown" if port.dims is None else str(port.dims).replace("'", "")
    return port.name, port.dtype.name, shape


def difference_row(difference):
    return (
        difference.name,
        difference.role,
        f"{difference.absolute:.2g}",
        f"{difference.relative:.2g}",
        f"{difference.tolerance:.2g}",
        "equal" if difference.passed else "FAILED",
    )


def cost_table(result):
    before, after = result.nodes
    rows = [("nodes of the graph", f"{before} before, {after} after")]
    rows += [
        (what, f"{s * 1e3:.3f} ms a call") for what, s in result.seconds.items()
    ]
    return table("Cost", ["", ""], rows)


def page(result):
    """One HTML file that needs no other."""
    screen = rich.console.Console(
        record=True, width=WIDTH, highlight=False, file=io.StringIO()
    )
    show(result, screen)
    return screen.export_html(inline_styles=True)
