% Sparse algebra in Octave: the Laplacian on a cube of n by n by n cells, factored (Cholesky and LU), solved directly
% and by conjugate gradients, its lowest eigenvalues against the known ones, and text and cells on the side.
n = 17;
e = ones(n, 1);
L1 = spdiags([-e, 2 * e, -e], -1 : 1, n, n);
I = speye(n);
A = kron(kron(L1, I), I) + kron(kron(I, L1), I) + kron(kron(I, I), L1);
b = sin((1 : n^3)');
printf("%d unknowns, %d entries\n", rows(A), nnz(A));

[R, failed, Q] = chol(A);
assert(failed == 0);
x = Q * (R \ (R' \ (Q' * b)));
printf("chol %.10e %.10e\n", norm(x), x(end));
assert(norm(A * x - b) < 1e-10 * norm(b));

[L, U, P, C] = lu(A + spdiags(e(1) * (1 : n^3)', 1, n^3, n^3) / n^3);
printf("lu %d %.10e\n", nnz(L) + nnz(U) > 0, sum(log(abs(diag(U)))));

[y, flag] = pcg(A, b, 1e-10, 500);
printf("pcg %d %.8e\n", flag, norm(y));

options.v0 = b;
values = sort(eigs(A, 4, "sm", options));
known = 4 * (3 * sin(pi / 2 / (n + 1))^2);
printf("eigs %.10e\n", values);
assert(abs(values(1) - known) < 1e-8);

for k = 1 : 200
  words{k} = sprintf("%d:%s", k, dec2hex(k * 2654435761, 8));
end
printf("text %s\n", hash("md5", strjoin(sort(words), ",")));
