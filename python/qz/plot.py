"""Pictures of models: the graph, the vertex marginals, the objective of ESTIMATE.

Each function returns a matplotlib Figure and, given a path, saves it as a
PNG of exactly size pixels (width, height). The figures are made without
pyplot, so that no window opens and nothing stays registered: they display
in a notebook, and fig.savefig writes other formats. matplotlib and networkx
(Debian's python3-matplotlib and python3-networkx) are imported only when a
picture is drawn.
"""

import os
from typing import Any, Optional, Sequence, Tuple, Union

import numpy as np

from .context import Context, Marginals, Model, QZError, Trace

Size = Tuple[int, int]
PathLike = Union[str, "os.PathLike[str]"]

# What the edge widths of graph() stand for, by its strength argument.
STRENGTHS = {
    "mi": "mutual information of the fitted edge marginal (nats)",
    "spread": "spread of the edge's weights (largest minus smallest)",
}


def _figure(size, dpi):
    from matplotlib.figure import Figure

    width, height = size
    if width < 1 or height < 1:
        raise ValueError("a picture needs a size of at least 1 by 1 pixels, not %r" % (size,))
    return Figure(figsize=(width / dpi, height / dpi), dpi=dpi)


def _finish(fig, path, dpi):
    if path is not None:
        # No tight bounding box: the file has exactly the pixels asked for.
        fig.savefig(os.fspath(path), dpi=dpi, format="png")
    return fig


def mutual_information(table: Any) -> float:
    """The mutual information (nats) of a joint distribution given as a 2-D table.

    The margins are the table's own row and column sums, so that an
    approximate marginal (loopy belief propagation) is measured consistently.
    """
    p = np.asarray(table, dtype=np.float64)
    total = p.sum()
    if not total > 0:
        return 0.0
    p = p / total
    px = p.sum(axis=1, keepdims=True)
    py = p.sum(axis=0, keepdims=True)
    mask = p > 0
    return float(np.sum(p[mask] * np.log(p[mask] / (px @ py)[mask])))


def edge_strengths(source: Union[Context, Model], strength: str = "mi") -> Tuple[Model, np.ndarray]:
    """(model, strength of each edge) of a Context's or a Model's graph, by a measure of STRENGTHS.

    "mi" needs the fitted marginals, so a Context, on which INFER runs with
    the table set aside; "spread" reads the weights only.
    """
    if strength not in STRENGTHS:
        raise ValueError("strength is one of %s, not %r" % (", ".join(sorted(STRENGTHS)), strength))
    model = source.model() if isinstance(source, Context) else source
    if not isinstance(model, Model):
        raise TypeError("graph() draws a Context's or a Model's graph, not %s" % type(source).__name__)
    if strength == "spread":
        values = [float(np.ptp(model.edge_weights(e))) if model.edge_weights(e).size else 0.0 for e in range(len(model.edges))]
    else:
        if not isinstance(source, Context):
            raise QZError("the mutual information needs the fitted marginals: pass the Context, or strength='spread'")
        marginals = source.infer(unconditional=True)
        values = [mutual_information(t) for t in marginals.edge]
    return model, np.asarray(values, dtype=np.float64)


def graph(
    source: Union[Context, Model],
    path: Optional[PathLike] = None,
    *,
    strength: str = "mi",
    layout: str = "auto",
    size: Size = (1200, 900),
    dpi: int = 100,
    seed: int = 7,
    title: Optional[str] = None,
) -> Any:
    """Draw the model's graph: vertices with their names, edges as wide and dark as they are strong.

    strength: "mi", the mutual information of each edge's fitted marginal
        (a Context is needed: INFER runs on the model, with the loaded table
        set aside so that nothing is observed), or "spread", the largest
        minus the smallest of the edge's weights.
    layout: "circle" (vertices on a circle, names outside: readable for
        dense graphs), "spring" (networkx's spring layout with the given
        seed: trees and sparse graphs), or "auto", which takes the circle
        for graphs with more than twice as many edges as vertices.
    The same model gives the same picture. Returns the Figure; saves a PNG at path.
    """
    import networkx as nx

    model, values = edge_strengths(source, strength)
    n = len(model.states)
    names = model.names if model.names is not None else [str(v) for v in range(n)]
    edges = [(int(s), int(t)) for s, t in model.edges]
    if layout == "auto":
        layout = "circle" if len(edges) > 2 * n else "spring"
    if layout not in ("circle", "spring"):
        raise ValueError("layout is 'circle', 'spring' or 'auto', not %r" % (layout,))
    top = float(values.max()) if len(values) and values.max() > 0 else 1.0
    G = nx.Graph()
    G.add_nodes_from(range(n))
    for (s, t), value in zip(edges, values):
        G.add_edge(s, t, weight=0.05 + value / top)
    if layout == "circle":
        pos = nx.circular_layout(G)
    else:
        pos = nx.spring_layout(G, seed=seed, weight="weight", k=1.5 / np.sqrt(max(n, 1)))
    fig = _figure(size, dpi)
    box = [0.0, 0.0, 1.0, 0.93]
    ax = fig.add_axes(box)
    ax.set_axis_off()
    fontsize = max(6, min(11, int(size[0] / 110)))
    if layout == "circle":
        # The circle leaves room for the longest name outside it: the limits
        # are set in units of its radius, from the names' widths in pixels.
        width, height = size[0] * box[2], size[1] * box[3]
        longest = max((_text_pixels(name, fontsize, dpi) for name in names), default=0.0)
        radius = min(width, height) / 2 - 0.85 * longest - 12
        while radius < min(width, height) / 5 and fontsize > 5:
            fontsize -= 1
            longest = max((_text_pixels(name, fontsize, dpi) for name in names), default=0.0)
            radius = min(width, height) / 2 - 0.85 * longest - 12
        radius = max(radius, min(width, height) / 5)
        ax.set_xlim(-width / 2 / radius, width / 2 / radius)
        ax.set_ylim(-height / 2 / radius, height / 2 / radius)
    else:
        ax.margins(0.12)
    order = np.argsort(values, kind="stable")  # the strong edges are drawn last, on top
    nx.draw_networkx_edges(
        G,
        pos,
        ax=ax,
        edgelist=[edges[i] for i in order],
        width=[0.3 + 6.0 * values[i] / top for i in order],
        edge_color=[values[i] for i in order] if len(order) else "0.5",
        edge_cmap=_cmap("viridis_r"),
        edge_vmin=0.0,
        edge_vmax=top,
        alpha=0.85,
    )
    nx.draw_networkx_nodes(G, pos, ax=ax, node_size=140, node_color="#f4a261", edgecolors="#5a3410")
    for v in range(n):
        x, y = pos[v]
        if layout == "circle":
            angle = np.arctan2(y, x)
            right = np.cos(angle) >= 0
            ax.text(1.08 * np.cos(angle), 1.08 * np.sin(angle), names[v], fontsize=fontsize,
                    ha="left" if right else "right", va="center",
                    rotation=np.degrees(angle) + (0 if right else 180), rotation_mode="anchor")
        else:
            ax.text(x, y + 0.04, names[v], fontsize=fontsize, ha="center", va="bottom")
    fig.suptitle(
        title or "%d vertices, %d edges; width and colour: %s" % (n, len(edges), STRENGTHS[strength]),
        fontsize=10,
    )
    return _finish(fig, path, dpi)


def _text_pixels(text, fontsize, dpi):
    """The width in pixels of text drawn at fontsize points."""
    from matplotlib.font_manager import FontProperties
    from matplotlib.textpath import TextToPath

    w, _, _ = TextToPath().get_text_width_height_descent(text, FontProperties(size=fontsize), ismath=False)
    return w * dpi / 72.0


def _cmap(name):
    import matplotlib

    return matplotlib.colormaps[name] if hasattr(matplotlib, "colormaps") else matplotlib.cm.get_cmap(name)


def marginals(
    source: Union[Context, Marginals],
    path: Optional[PathLike] = None,
    *,
    vertices: Optional[Sequence[Any]] = None,
    size: Size = (1200, 900),
    dpi: int = 100,
    columns: Optional[int] = None,
) -> Any:
    """Draw vertex marginals as bars, one panel per vertex, labelled with the state labels.

    source: Marginals, or a Context (INFER runs with the table set aside).
    vertices: names or indices of the vertices to draw (default all).
    Returns the Figure; saves a PNG at path.
    """
    m = source.infer(unconditional=True) if isinstance(source, Context) else source
    if not isinstance(m, Marginals):
        raise TypeError("marginals() draws Marginals or a Context's, not %s" % type(source).__name__)
    chosen = list(range(len(m.vertex))) if vertices is None else [m._vertex_index(v) for v in vertices]
    if not chosen:
        raise ValueError("no vertex to draw")
    cols = columns or int(np.ceil(np.sqrt(len(chosen) * size[0] / max(1, size[1]))))
    cols = max(1, min(cols, len(chosen)))
    rows = int(np.ceil(len(chosen) / cols))
    fig = _figure(size, dpi)
    fontsize = max(5, min(9, int(min(size[0] / cols, size[1] / rows) / 22)))
    for k, v in enumerate(chosen):
        ax = fig.add_subplot(rows, cols, k + 1)
        labels = [str(x) for x in m._labels(v)]
        ax.bar(range(len(labels)), m.vertex[v], color="#2a9d8f")
        ax.set_xticks(range(len(labels)))
        ax.set_xticklabels(labels, fontsize=fontsize, rotation=30 if len(labels) > 3 else 0)
        ax.set_ylim(0, 1)
        ax.tick_params(axis="y", labelsize=fontsize)
        ax.set_title(str(m._name(v)), fontsize=fontsize + 1)
    fig.tight_layout()
    return _finish(fig, path, dpi)


def objective(
    source: Union[Context, Trace, Sequence[Trace]],
    path: Optional[PathLike] = None,
    *,
    size: Size = (900, 600),
    dpi: int = 100,
    norm: bool = True,
) -> Any:
    """Draw the objective of ESTIMATE per iteration, as the context recorded it (Context.trace).

    source: a Context (its last trace), a Trace, or several traces (one line
    each). With norm, the gradient norm goes on a second, logarithmic axis.
    The best iteration (smallest gradient norm, the point ESTIMATE keeps) is
    marked. Returns the Figure; saves a PNG at path.
    """
    if isinstance(source, Context):
        traces = [source.trace] if source.trace is not None else []
    elif isinstance(source, Trace):
        traces = [source]
    else:
        traces = list(source)
    traces = [t for t in traces if t is not None and len(t)]
    if not traces:
        raise QZError("no ESTIMATE has been recorded: run ESTIMATE first")
    fig = _figure(size, dpi)
    ax = fig.add_subplot(1, 1, 1)
    for k, t in enumerate(traces):
        label = "objective" if len(traces) == 1 else "objective, run %d" % (k + 1)
        ax.plot(t.iteration, t.objective, color=_cmap("tab10")(k % 10), label=label)
        b = t.best
        ax.plot([t.iteration[b]], [t.objective[b]], "o", color=_cmap("tab10")(k % 10))
    ax.set_xlabel("iteration")
    ax.set_ylabel("objective (average negative log-likelihood, nats)")
    if norm:
        ax2 = ax.twinx()
        for k, t in enumerate(traces):
            finite = np.where(t.gradient_norm > 0, t.gradient_norm, np.nan)
            ax2.plot(t.iteration, finite, color=_cmap("tab10")(k % 10), linestyle=":", label="gradient norm")
        ax2.set_yscale("log")
        ax2.set_ylabel("gradient norm (dotted)")
    ax.legend(loc="upper right")
    ax.set_title("ESTIMATE: the dot marks the best iteration (smallest gradient norm)")
    fig.tight_layout()
    return _finish(fig, path, dpi)
