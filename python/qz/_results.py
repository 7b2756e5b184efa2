"""What queries of a context return: marginals, model layouts, statistics, traces."""

from typing import Any, Dict, List, NamedTuple, Optional, Union

import numpy as np


class Marginals:
    """The result of INFER: vertex and edge marginals and the log partition function.

    Attributes:
        array: the flat array that INFER publishes, copied: all vertex
            marginals vertex by vertex, then all edge marginals in the layout
            of the weights.
        vertex: one array per vertex, its state probabilities (views of array).
        edge: one 2-D array per edge (s, t), indexed [state of s, state of t].
        edges: the edges as an (m, 2) array of end vertices, in the graph's order.
        states: the number of states of each vertex.
        log_z: the log partition function (natural logarithm) of the run.
        names: the vertex names of the model (its table's column names), or
            None for a model without names.
        labels: per vertex, the label of each state: the values of the
            DataFrame the model was learned from, else the model's state
            names; None for a model without names.

    With names, m["Class"] (or m[16]) is that vertex's marginal as a pandas
    Series indexed by the state labels, m.to_dict() all of them, m.to_frame()
    one long table, and m.edge_frame(e) an edge's table (pandas needed).
    """

    def __init__(
        self,
        array: np.ndarray,
        states: np.ndarray,
        edges: np.ndarray,
        log_z: float,
        names: Optional[List[str]] = None,
        labels: Optional[List[List[Any]]] = None,
    ) -> None:
        """Cut the flat INFER array into vertex and edge tables."""
        self.array = array
        self.states = states
        self.edges = edges
        self.log_z = log_z
        self.names = names
        self.labels = labels
        self.vertex = []
        pos = 0
        for y in states:
            self.vertex.append(array[pos : pos + y])
            pos += y
        self.edge = []
        for s, t in edges:
            size = states[s] * states[t]
            self.edge.append(array[pos : pos + size].reshape(states[s], states[t]))
            pos += size

    def __repr__(self):
        return "Marginals(%d vertices, %d edges, log_z=%r)" % (len(self.vertex), len(self.edge), self.log_z)

    def _vertex_index(self, v):
        if isinstance(v, (int, np.integer)):
            if not 0 <= v < len(self.vertex):
                raise IndexError("no vertex %d: the model has %d" % (v, len(self.vertex)))
            return int(v)
        if self.names is None or v not in self.names:
            raise KeyError("no vertex named %r" % (v,))
        return self.names.index(v)

    def _labels(self, v):
        return self.labels[v] if self.labels is not None else list(range(int(self.states[v])))

    def _name(self, v):
        return self.names[v] if self.names is not None else v

    def __getitem__(self, v: Union[int, str]) -> Any:
        """The marginal of vertex v (its index or name) as a pandas Series indexed by state labels."""
        import pandas as pd

        i = self._vertex_index(v)
        return pd.Series(self.vertex[i], index=pd.Index(self._labels(i), dtype=object), name=self._name(i))

    def to_dict(self) -> Dict[Any, Any]:
        """All vertex marginals: {vertex name: Series indexed by state labels} (pandas needed)."""
        return {self._name(i): self[i] for i in range(len(self.vertex))}

    def to_frame(self) -> Any:
        """All vertex marginals as one DataFrame, indexed by (vertex, state), column "probability"."""
        import pandas as pd

        keys = [(self._name(i), label) for i in range(len(self.vertex)) for label in self._labels(i)]
        index = pd.MultiIndex.from_tuples(keys, names=["vertex", "state"])
        return pd.DataFrame({"probability": np.concatenate(self.vertex) if self.vertex else []}, index=index)

    def edge_frame(self, e: int) -> Any:
        """The marginal of edge e as a DataFrame: rows the states of its first vertex, columns those of its second."""
        import pandas as pd

        s, t = (int(x) for x in self.edges[e])
        frame = pd.DataFrame(
            self.edge[e],
            index=pd.Index(self._labels(s), dtype=object, name=self._name(s)),
            columns=pd.Index(self._labels(t), dtype=object, name=self._name(t)),
        )
        return frame


class Model:
    """The layout and weights of the model loaded in a context.

    Attributes:
        states: the number of states of each vertex.
        edges: the edges as an (m, 2) array, in the order of the weight blocks.
        weights: a copy of the weights as doubles; edge e = (s, t) holds a
            states[s] by states[t] block, the state of s the slow index.
        names: the vertex names, or None for a model without names.
        labels: per vertex the labels of its states (see Marginals), or None.
    """

    def __init__(
        self,
        states: np.ndarray,
        edges: np.ndarray,
        weights: np.ndarray,
        names: Optional[List[str]] = None,
        labels: Optional[List[List[Any]]] = None,
    ) -> None:
        """Hold the layout and a copy of the weights."""
        self.states = states
        self.edges = edges
        self.weights = weights
        self.names = names
        self.labels = labels

    def __repr__(self):
        return "Model(%d vertices, %d edges, %d weights)" % (len(self.states), len(self.edges), len(self.weights))

    def edge_weights(self, e: int) -> np.ndarray:
        """Return the weights of edge e as a states[s] by states[t] array (a view)."""
        offsets = np.concatenate(([0], np.cumsum([self.states[s] * self.states[t] for s, t in self.edges])))
        s, t = self.edges[e]
        return self.weights[offsets[e] : offsets[e + 1]].reshape(self.states[s], self.states[t])


class Statistics(NamedTuple):
    """The sufficient statistics of a model: counts in the container's layout, and the rows counted.

    counts holds, as whole numbers, first the state counts of each vertex,
    vertex by vertex, then the joint state counts of each edge in the layout
    of the weights.
    """

    counts: np.ndarray
    rows: int


class Trace:
    """The objective of one ESTIMATE, iteration by iteration, as the optimizer reported it.

    Attributes (numpy arrays, one entry per iteration): iteration (from 0),
    objective (the average negative log-likelihood at that iteration's point)
    and gradient_norm (the largest absolute gradient entry, which decides the
    best point). best is the index of the iteration with the smallest norm.
    """

    def __init__(self) -> None:
        """An empty trace; the context's optimizer hook fills it."""
        self._rows = []

    def _add(self, iteration, objective, norm):
        self._rows.append((iteration, objective, norm))

    @property
    def iteration(self) -> np.ndarray:
        """The iteration numbers, from 0."""
        return np.array([r[0] for r in self._rows], dtype=np.int64)

    @property
    def objective(self) -> np.ndarray:
        """The objective at each iteration."""
        return np.array([r[1] for r in self._rows], dtype=np.float64)

    @property
    def gradient_norm(self) -> np.ndarray:
        """The gradient norm at each iteration."""
        return np.array([r[2] for r in self._rows], dtype=np.float64)

    @property
    def best(self) -> Optional[int]:
        """Index of the iteration with the smallest gradient norm (the point ESTIMATE keeps); None if empty."""
        if not self._rows:
            return None
        norms = self.gradient_norm
        finite = np.where(np.isfinite(norms), norms, np.inf)
        return int(np.argmin(finite))

    def __len__(self):
        return len(self._rows)

    def __repr__(self):
        last = self._rows[-1][1] if self._rows else None
        return "Trace(%d iterations, last objective %r)" % (len(self._rows), last)
