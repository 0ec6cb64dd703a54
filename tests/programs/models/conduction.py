"""Sparse algebra in Python: a plate's conduction matrix from finite elements, factored, solved and cut for its lowest
modes; a singular value decomposition of a dense matrix; a product of two sparse ones."""
import gc

import numpy as np
import scipy.linalg
import scipy.sparse as sp
import scipy.sparse.linalg as spla

n = 150
numbers = np.arange((n + 1) * (n + 1)).reshape(n + 1, n + 1)
corners = np.stack([numbers[:-1, :-1], numbers[1:, :-1], numbers[1:, 1:], numbers[:-1, 1:]], axis=-1).reshape(-1, 4)
element = np.array([[4, -1, -2, -1], [-1, 4, -1, -2], [-2, -1, 4, -1], [-1, -2, -1, 4]]) / 6.0
rows = np.repeat(corners, 4, axis=1).ravel()
columns = np.tile(corners, (1, 4)).ravel()
whole = sp.csc_matrix((np.tile(element.ravel(), n * n), (rows, columns)))
inside = numbers[1:-1, 1:-1].ravel()
A = whole[inside][:, inside].tocsc()
b = np.sin(np.arange(A.shape[0]) * 0.37)
print(A.shape, A.nnz)

factor = spla.splu(A)
x = factor.solve(b)
assert np.linalg.norm(A @ x - b) < 1e-9 * np.linalg.norm(b)
print(f"splu {np.linalg.norm(x):.9e} {x[-1]:.9e}")
print(f"cg {np.linalg.norm(spla.cg(A, b, tol=1e-10)[0]):.7e}")
values = np.sort(spla.eigsh(A, 4, sigma=0, v0=b)[0])
print("eigsh", " ".join(f"{value:.9e}" for value in values))
assert abs(values[0] * n * n / (2 * np.pi**2) - 1) < 1e-3, "the lowest mode of a square plate"
square = A @ A
print(f"product {square.nnz} {square.sum():.9e}")
dense = np.sin(np.outer(np.arange(1, 260), np.arange(1, 220)) * 0.01)
print("svd", " ".join(f"{value:.8e}" for value in scipy.linalg.svd(dense)[1][:4]))
del factor, square, dense
gc.collect()
# A million objects of Python's own, which come and go.
words = {f"node {i % 60000}": [i, float(i), str(i)] for i in range(200000)}
print("objects", len(words), sum(len(value[2]) for value in words.values()))
