"""The words of zelm's reference documentation, beside the registry: one entry
per operation with what it computes, what its operands and further arguments
mean, the statuses its arithmetic can return and the scratch it needs. The
generator (tools/gen_docs.py, run by tools/gen.py) adds what the registry
knows: signatures, forms, types, prototypes, argument checks and their order,
and which exports this build has. Text is Markdown.

Operand roles name the operand groups by their argument prefix: "src",
"src1", "src2", "src3", "dst", "dstRight", "dstLeft", "val". A result formula
writes {1}, {2}, {3} for the operands of the signature in order, rendered as
src1[n], src2 ... with [n] on an array operand and a superscript T on a `t`
operand.
"""

# ---------------------------------------------------------------------------
# Pages, in order: file name, title, introduction.
PAGES = [
    ("elementwise", "Element-wise arithmetic", """\
Add, Sub and multiplication by a constant, on vectors, matrices and arrays of
them. Each element of a result comes from one addition, subtraction or
multiplication in the element type, rounded once: no scaling, no saturation,
no wider intermediate. NaN, infinities and overflow pass through as the
processor gives them and the status stays 0. Element positions are
independent, so results are the same bits in every form, on every path and
with any number of threads.

An array operation may write over a source array that it reads as `m` or `v`
when the destination has the same address and strides: each element is read
before it is written."""),
    ("movement", "Data movement", """\
Copying between the storage forms, identity matrices, gathering into compact
memory and transposition. Elements are moved as 4- or 8-byte units and never
interpreted as numbers: NaN payloads and signalling NaNs keep their bits.
Copy, LoadIdentity and Extract run on the calling thread at any size;
Transpose too."""),
    ("products", "Products", """\
Matrix by matrix, matrix by vector, their array forms, and Gaxpy (y + A x).
Each element of a result is a sum of products; every product is rounded to
the element type before it is added (no fused multiply-add), and `32f` sums
stay in 32-bit floats. The order of the additions belongs to the kernel and
its path (strides, order, form), so results can differ in the last bit
between forms and strides; for a given call they are always the same,
whatever the number of threads. No operand may overlap the destination."""),
    ("vectors", "Vector algebra and reductions", """\
Dot products, vector norms, cross products, scaled sums of vectors, traces
and Frobenius norms. The reductions (DotProduct, L2Norm, Trace, FrobNorm)
write one number per object into a plain compact array `pDst`: element n for
object n, with no stride, shift or table in any form. Sums stay in the
element type, each product rounded before it is added; square roots are
taken once per object on the finished sum.

The order of the additions belongs to the kernel and its path. A few
kernels take several objects together, in an order of their own, counted
from the start of the part of the array they are given; when a large call is
divided among threads such an object can differ in the last bit from the
same call on one thread. Otherwise each object's result is the same in every
call."""),
    ("solvers", "Factorisations and solvers", """\
LU, Cholesky and QR factorisation with their back-substitutions, inversion
and determinants of small square matrices (QR: tall ones too), one matrix or
an array of `count` of them. A back-substitution reads exactly what its
decomposition wrote; the caller keeps that between the two calls. All
arithmetic is in the element type, except the extended-precision
determinants noted below. Families with scratch take it from the caller as
`pBuffer`, which must not be null even where a path does not use it; when an
array call is divided among threads each thread gets scratch of its own and
the caller's buffer is not used.

A numerical failure ends the work on the failing object at once: in an array
the objects before it are complete and the later ones untouched; when the
call is divided among threads, the other threads finish their parts and the
call returns one status for the whole array."""),
    ("eigen", "Eigenproblems", """\
Eigenvalues, and eigenvalues with eigenvectors, of real symmetric matrices
(Householder reduction to tridiagonal form, then QL iteration) and of general
real matrices (Hessenberg reduction, then double-shift QR), one matrix or an
array of `count` matrices. Results are compact arrays: in an array call
object k owns elements k*n to k*n + n - 1 of each value array, n being
`widthHeight`. Every operation takes a scratch `pBuffer`; the general
families size it with the queries `zelmEigenValuesGetBufSize_32f` and
friends, and an array call reuses it for every object."""),
    ("geometry", "Fixed-size geometry", """\
Vectors of 2, 3 and 4 `float` elements (`v2`, `v3`, `v4`) and 4x4 `float`
matrices (`m4`), for 3D graphics. Elements are contiguous: a `v3` is three
consecutive floats, an `m4` sixteen, row-major (element (r, c) at 4r + c).
Points are row vectors and transform as v' = v M, so a translation stands in
the last row (elements 12, 13, 14). LH and RH mean left-handed and
right-handed coordinates: the view direction is +z in LH, -z in RH. Angles
are in radians.

In the formulas a, b, c, d stand for the sources `pSrc1` to `pSrc4` (or
`pSrc`), element i of a vector for a[i]. Unless an entry says otherwise
these functions check nothing, not even null pointers, and return
`zelStsOk`; zero denominators give infinities or NaN as
IEEE arithmetic does. All arithmetic is in 32 bits in a fixed order, so the
results are the same bits on every call."""),
    ("library", "The library itself", """\
The version query of `libzelmw7`, and the sibling library `libzelcore`
(header `zelcore.h`), which holds the number of threads zelm may use and
reports the cache size. zelm keeps no other state: it needs no
initialisation, reads no files and no environment, and writes no messages."""),
]

# Exports of the sibling library, documented on the library page (not counted
# among the exports of libzelmw7).
ZELCORE = [
    ("int ownGetNumThreads(void);",
     "The number of threads zelm may use for one call: what `zelSetNumThreads` set, or by default what "
     "the OpenMP runtime would use for a parallel region (`omp_get_max_threads`). 1 or less means no "
     "threads."),
    ("void zelSetNumThreads(int n);",
     "Sets the number of threads zelm may use from now on, for all threads of the process; `n` below 1 "
     "restores the default. An array call is divided among threads only when it is large enough and "
     "`count` is at least this number."),
    ("int zelGetMaxCacheSizeB(int* pSize);",
     "Stores the size in bytes of the machine's largest cache at `*pSize`, or 0 when it is not known, "
     "and returns 0. Transpose uses it to choose its stores."),
]

# ---------------------------------------------------------------------------
# Argument meanings shared by all entries; an entry's own "args" win.
ARGS = {
    "width": "columns of the result; an `m` operand has `height` rows of `width` elements, a `t` "
             "operand is stored with `width` rows of `height` elements",
    "height": "rows of the result (see `width`)",
    "len": "elements of each vector",
    "count": "number of objects in each array operand; a single operand (a letter without `a`) serves "
             "all of them",
    "widthHeight": "order n of the square matrices",
    "val": "the constant, by value",
    "val1": "scale of the first source, by value",
    "val2": "scale of the second source, by value",
    "src1Width": "columns of the first source as stored (also for a `t` operand)",
    "src1Height": "rows of the first source as stored",
    "src2Width": "columns of the second source as stored",
    "src2Height": "rows of the second source as stored",
    "src2Len": "elements of the vector",
    "src3Len": "elements of the added vector",
    "pDst": "plain array of results: element n for object n (element 0 for a single object), in every "
            "form",
    "pBuffer": "the caller's scratch (see Scratch); not null",
}
# Operand roles shared by all entries.
ROLES = {
    "src": "the source",
    "src1": "the first source",
    "src2": "the second source",
    "src3": "the third source",
    "dst": "the destination",
    "val": "the constants, one per object (`ca`)",
}
# Arguments of the fixed-size functions.
FIXED_ARGS = {
    "pSrc": "the source",
    "pSrc1": "first source",
    "pSrc2": "second source",
    "pSrc3": "third source",
    "pSrc4": "fourth source",
    "pDst": "destination",
    "val": "scalar, by value",
    "pMatrix": "the 4x4 matrix",
    "srcStride": "bytes between consecutive source vectors",
    "dstStride": "bytes between consecutive destination vectors",
    "count": "number of vectors; below 1 nothing is written",
    "angle": "angle in radians",
    "pEye": "camera position, a v3", "pAt": "point looked at, a v3", "pUp": "up direction, a v3",
    "viewWidth": "width of the view volume (at the near plane in a perspective)",
    "viewHeight": "height of the view volume (at the near plane in a perspective)",
    "left": "smallest x of the view volume (at the near plane in a perspective)",
    "right": "largest x of the view volume (at the near plane in a perspective)",
    "bottom": "smallest y of the view volume (at the near plane in a perspective)",
    "top": "largest y of the view volume (at the near plane in a perspective)",
    "zNear": "distance of the near plane along the view direction",
    "zFar": "distance of the far plane along the view direction",
    "fovY": "vertical field of view, radians", "aspect": "width over height",
    "pProjection": "projection matrix", "pView": "view matrix", "pWorld": "world matrix",
    "viewportWidth": "viewport width", "viewportHeight": "viewport height",
    "viewportMinZ": "depth at the near plane", "viewportMaxZ": "depth at the far plane",
}

# Shared by the general eigenproblem families.
VALUES_RE_IM = {"pDstValuesRe": "real parts, `widthHeight` per object, compact",
                "pDstValuesIm": "imaginary parts, `widthHeight` per object, compact"}
GENERIC_2X2 = ("zelStsErrGeneric", "a 2x2 system for a complex eigenvector was too close to singular: "
               "all values stored, no vectors")
VECTORS_SCRATCH = ("`pBuffer`: the bytes that `zelmEigenValuesVectorsGetBufSize_32f` (`_64f`) reports for "
                   "`widthHeight`, n (3n + 5) elements; one object's worth, reused by every object.")

# ---------------------------------------------------------------------------
# Entries. Keys: page, title, op, sigs (a subset of the operation's
# signatures; default all), fixed (the fixed-size exports of op), summary
# (one line, also the header's comment), text, result (formula per
# signature), roles, args, statuses [(status name, when)], scratch.
ENTRIES = [
    # -- element-wise --------------------------------------------------------
    dict(page="elementwise", title="Add", op="Add",
         summary="element-wise sum of matrices, vectors or a vector and a constant, one object or arrays",
         text="""\
Adds two matrices (either read transposed), two vectors, or a constant to
each element of a vector. There is no `mt` signature: swap the operands and
use `tm`. Add has no `cv` signatures either: `vc` is the same sum.""",
         result="{1} + {2}",
         roles={"src1": "first summand", "src2": "second summand", "src": "the vector", "dst": "the sum"}),
    dict(page="elementwise", title="Sub", op="Sub",
         summary="element-wise difference of matrices, vectors, or a vector and a constant, one object or arrays",
         text="""\
Subtracts the second operand from the first. In the signatures that put the
constant first (`cv`, `cav`, `cva`, `cava`) the vector is subtracted from the
constant, but the argument list still has the vector first and the constant
behind it: `zelmSub_cv_32f` takes the same arguments as `zelmSub_vc_32f` and
gives the result of opposite sign.""",
         result="{1} - {2}",
         roles={"src1": "minuend", "src2": "subtrahend", "src": "the vector", "dst": "the difference"}),
    dict(page="elementwise", title="Mul by a constant", op="Mul", sigs="mc tc vc mac tac vac vca vaca",
         summary="multiplication of matrices or vectors by a constant, element by element",
         text="""\
Multiplies each element of a matrix (either read transposed) or vector by a
constant. In `vca` one vector is multiplied by each constant of an array and
gives `count` vectors. Products of matrices and vectors are under
[Mul: products](products.md#mul-products).""",
         result="{1} * {2}",
         roles={"src": "the matrix or vector", "dst": "the product"}),
    # -- movement ------------------------------------------------------------
    dict(page="movement", title="Copy", op="Copy",
         summary="copies arrays of matrices or vectors from any storage form to any other",
         text="""\
Copies `count` objects, element (i, j) of source object n to element (i, j)
of destination object n, in order: objects, then rows, then columns. The two
letters of the form say the source's form, then the destination's: `S`
standard, `L` list, `P` pointer; so `zelmCopy_ma_32f_PS` turns a pointer-form
array into a strided one. With `count` 1 the stride0 arguments are not used
and not checked. Overlapping source and destination get what that forward
order gives.""",
         result="{1}",
         roles={"src": "the source array", "dst": "the destination array"},
         args={"width": "columns of each matrix", "height": "rows of each matrix"}),
    dict(page="movement", title="LoadIdentity", op="LoadIdentity",
         summary="fills an array of matrices with identity matrices",
         text="""\
Each matrix gets 1 at (i, i) for i below both `width` and `height`, and 0
everywhere else; a matrix with more rows than columns has zero rows at the
bottom.""",
         result="I",
         roles={"dst": "the matrices written"},
         args={"width": "columns of each matrix", "height": "rows of each matrix"}),
    dict(page="movement", title="Extract", op="Extract",
         summary="gathers matrices or vectors of any storage form into one compact block",
         text="""\
Writes the elements of each object one behind the other, row by row, and the
objects back to back, with no gaps: element (i, j) of object n goes to
`pDst`[n*width*height + i*width + j], element j of vector n to
`pDst`[n*len + j]. A `t` source is transposed on the way: the destination
has `height` rows of `width`.""",
         result="{1}, packed",
         roles={"src": "the source"},
         args={"pDst": "plain destination block, `width`*`height` (or `len`) elements per object, objects "
                       "back to back"}),
    dict(page="movement", title="Transpose", op="Transpose",
         summary="writes the transpose of a matrix or of each matrix of an array",
         text="""\
The source has `height` rows of `width` elements; the destination gets
`width` rows of `height`, dst(j, i) = src(i, j). In the `_P` forms the
destination table has its own row-major order, entry j*height + i. Large
contiguous `32f` matrices are transposed in bands, with non-temporal stores
when the data outgrows the machine's largest cache (`zelGetMaxCacheSizeB`).
The destination must not overlap the source. `zelmTranspose_m4_32f` is under
[Transpose (m4)](geometry.md#transpose-m4).""",
         result="{1}ᵀ",
         roles={"src": "the matrix read", "dst": "its transpose"},
         args={"width": "columns of the source (rows of the destination)",
               "height": "rows of the source (columns of the destination)"}),
    # -- products ------------------------------------------------------------
    dict(page="products", title="Mul: products", op="Mul",
         sigs="mm mt tm tt mv tv mam mat tam tat mma mta tma tta mama mata tama tata mav tav mva tva mava tava",
         summary="matrix-matrix and matrix-vector products, one pair or arrays",
         text="""\
Each source's sizes are given as it lies in memory, also for a `t` operand
read transposed; the destination's size follows from the signature:

| signature | terms per element | destination |
|---|---|---|
| `mm` | `src1Width` | `src1Height` rows, `src2Width` columns |
| `mt` | `src1Width` | `src1Height` rows, `src2Height` columns |
| `tm` | `src1Height` | `src1Width` rows, `src2Width` columns |
| `tt` | `src1Height` | `src1Width` rows, `src2Height` columns |
| `mv` | `src1Width` | vector of `src1Height` |
| `tv` | `src1Height` | vector of `src1Width` |

The array signatures are the same products per object: drop the `a` letters
to find the sizes. Multiplication by a constant is under
[Mul by a constant](elementwise.md#mul-by-a-constant), the fixed 4x4 product
under [Mul (mm4x4)](geometry.md#mul-mm4x4).""",
         result="{1} {2}",
         roles={"src1": "left factor (matrix)", "src2": "right factor (matrix or vector)", "dst": "the product"}),
    dict(page="products", title="Gaxpy", op="Gaxpy",
         summary="matrix times vector plus vector, y + A x, with one shared matrix",
         text="""\
Element i of the result is the sum over k of A(i, k) x(k), each product
rounded, and then y(i) added. The matrix is always a single one, shared by
every object; in `mva` both vectors are arrays, in `mvav` the added vector is
shared too.""",
         result="{1} {2} + {3}",
         roles={"src1": "the matrix A", "src2": "the vector x", "src3": "the added vector y",
                "dst": "the result"},
         args={"src1Width": "columns of A", "src1Height": "rows of A",
               "src2Len": "elements of x; must equal `src1Width`",
               "src3Len": "elements of y; must equal `src1Height`"}),
    # -- vectors -------------------------------------------------------------
    dict(page="vectors", title="DotProduct", op="DotProduct",
         summary="dot products of vectors, one number per object",
         text="""\
The sum of the products of corresponding elements, each product rounded
before it is added. The fixed-size forms are under
[DotProduct (v2, v3, v4)](geometry.md#dotproduct-v2-v3-v4).""",
         result="{1} · {2}",
         roles={"src1": "first vector", "src2": "second vector"}),
    dict(page="vectors", title="L2Norm", op="L2Norm",
         summary="Euclidean lengths of vectors, one number per object",
         text="""\
The square root of the sum of squares, with no scaling: elements whose
squares overflow give +infinity. `zelmL2Norm_va_32f` with element strides
other than 4, and `zelmL2Norm_va_32f_P`, both at `len` 3, finish groups of
four vectors with the processor's reciprocal square root estimate and one
Newton step instead of the correctly rounded square root; those results can
be a few units in the last place off.""",
         result="‖{1}‖",
         roles={"src": "the vectors"}),
    dict(page="vectors", title="CrossProduct", op="CrossProduct",
         summary="cross products of 3-element vectors",
         text="""\
Vectors have three elements; there is no length argument. Element 0 is
a(1) b(2) - a(2) b(1), element 1 is a(2) b(0) - a(0) b(2), element 2 is
a(0) b(1) - a(1) b(0), each product rounded before the subtraction, in every
form and type. The fixed-size forms are under
[CrossProduct (v2, v3, v4)](geometry.md#crossproduct-v2-v3-v4).""",
         result="{1} × {2}",
         roles={"src1": "first vector a", "src2": "second vector b", "dst": "the cross product"}),
    dict(page="vectors", title="Saxpy", op="Saxpy",
         summary="scaled vector plus vector, val a + b",
         text="""\
`val` scales the first source, never the second; each product is rounded,
then added. A zero `val` still multiplies, so NaN or infinity in the first
source gives NaN.""",
         result="val {1} + {2}",
         roles={"src1": "the scaled vector a", "src2": "the added vector b", "dst": "the result"},
         args={"val": "scale of the first source, by value"}),
    dict(page="vectors", title="LComb", op="LComb",
         summary="linear combination of two vectors, val1 a + val2 b",
         text="""\
Both products are rounded, then added. There is no `vva`: swap the operands
and the two scales.""",
         result="val1 {1} + val2 {2}",
         roles={"src1": "first vector a", "src2": "second vector b", "dst": "the result"}),
    dict(page="vectors", title="Trace", op="Trace",
         summary="traces of square matrices, one number per object",
         text="The sum of the diagonal elements; only the diagonal is read.",
         result="trace({1})",
         roles={"src": "the matrices"}),
    dict(page="vectors", title="FrobNorm", op="FrobNorm",
         summary="Frobenius norms of matrices, one number per object",
         text="""\
The square root of the sum of squares of all elements of a `height` x
`width` matrix, with no scaling against overflow.""",
         result="‖{1}‖F",
         roles={"src": "the matrices"},
         args={"width": "columns of each matrix", "height": "rows of each matrix"}),
    # -- solvers -------------------------------------------------------------
    dict(page="solvers", title="LUDecomp", op="LUDecomp",
         summary="LU factorisation with partial pivoting; the input of LUBackSubst",
         text="""\
Gaussian elimination with row pivoting gives a unit lower triangular L and
an upper triangular U with P A = L U. Rows are not moved: the pivot table
`pDstIndex` says that factor row k lies in destination row p[k], which holds
the multipliers L(k, j) in its columns j < k (the unit diagonal is not
stored) and U(k, j) in the columns from k on. The destination may be the
source itself (same address and strides).""",
         result="L, U and P of {1}",
         roles={"src": "the matrix A", "dst": "the packed factors"},
         args={"pDstIndex": "pivot table written: `widthHeight` `int` entries per matrix, entry k the "
                            "source row chosen as k-th pivot; in an array the tables lie back to back "
                            "(object i at entry i*`widthHeight`), in every form"},
         statuses=[("zelStsErrSingular", "the largest magnitude left for a pivot is below 2^-125 "
                    "(`32f`) or 2^-1021 (`64f`) at orders 3 to 6, or at most 2^-23 or 2^-52 at the other "
                    "orders: absolute thresholds, not scaled by the matrix. Part of the factors and the "
                    "table may stand; in an array the objects before it are complete")]),
    dict(page="solvers", title="LUBackSubst", op="LUBackSubst",
         summary="solves A x = b from the factors and pivot table of LUDecomp",
         text="""\
Reads the packed factors and the pivot table exactly as `zelmLUDecomp` wrote
them. The right-hand side and the solution are in natural order. There is no
numerical failure: a zero on the diagonal of U gives infinities or NaN with
status 0, so check the status of the factorisation. `mva` solves `count`
right-hand sides with one matrix, `mava` one per matrix.""",
         result="x with A x = {2}, A factored in {1}",
         roles={"src1": "the packed factors", "src2": "the right-hand side b", "dst": "the solution x"},
         args={"pSrcIndex": "pivot table from `zelmLUDecomp`; in `mava` one per matrix, back to back; "
                            "entries must lie in 0 .. `widthHeight`-1 (not checked)"}),
    dict(page="solvers", title="CholeskyDecomp", op="CholeskyDecomp",
         summary="Cholesky factorisation of symmetric positive definite matrices; the input of CholeskyBackSubst",
         text="""\
Computes the lower triangular L with A = L Lᵀ, from the lower triangle of A
only (symmetry is not checked). The stored factor is particular: below the
diagonal L(i, j), on the diagonal the reciprocal 1 / L(i, i). Elements above
the diagonal are neither read nor written. The `32f` kernels take that
reciprocal from the processor's reciprocal square root estimate refined by
one Newton step, not from a square root and a division.""",
         result="L of {1}",
         roles={"src": "the matrix A (lower triangle read)", "dst": "the factor, lower triangle"},
         statuses=[("zelStsErrNotPosDefinite", "the matrix is not positive definite: the term under the "
                    "square root of a diagonal element is 0 or less (below 2^-23 in the order-3 `_P` "
                    "kernels). The rows before it and the off-diagonal part of the failing row may be "
                    "stored")]),
    dict(page="solvers", title="CholeskyBackSubst", op="CholeskyBackSubst",
         summary="solves A x = b from the factor of CholeskyDecomp",
         text="""\
Reads only the lower triangle of the factor, with its reciprocal diagonal,
as `zelmCholeskyDecomp` wrote it. `mva` solves `count` right-hand sides with
one factor, `mava` one per factor. There is no numerical failure.""",
         result="x with A x = {2}, A factored in {1}",
         roles={"src1": "the factor", "src2": "the right-hand side b", "dst": "the solution x"}),
    dict(page="solvers", title="QRDecomp", op="QRDecomp",
         summary="QR factorisation by Householder reflections, height >= width; the input of QRBackSubst",
         text="""\
Factors a matrix of `height` rows and `width` columns (`height` at least
`width`) into an orthogonal Q and an upper triangular R, without column
pivoting. Q is not formed: the destination holds R on and above the
diagonal and, below the diagonal of each column k, the Householder vector of
reflection k (its leading 1 is implied). A square matrix gets no reflection
for its last column. The destination may be the source itself.""",
         result="R and the reflections of {1}",
         roles={"src": "the matrix A", "dst": "the packed R and reflections"},
         args={"width": "columns of the matrix", "height": "rows of the matrix, at least `width`"},
         statuses=[("zelStsErrDivByZero", "a column is dependent on the previous ones: the squared norm "
                    "of its part on and below the diagonal is below 2^-23 (`32f`) or 2^-52 (`64f`), an "
                    "absolute threshold. The finished columns stand in the destination")],
         scratch="`pBuffer`: `height` elements of the element type, for one reflection. Its contents "
                 "afterwards mean nothing."),
    dict(page="solvers", title="QRBackSubst", op="QRBackSubst",
         summary="solves A x = b, or least squares, from the packed result of QRDecomp",
         text="""\
Applies the stored reflections to b (`height` elements), then solves with R
for x (`width` elements). For a square matrix that solves A x = b; for
`height` greater than `width` it is the least-squares solution. No diagonal
of R is checked: a zero gives infinities or NaN with status 0. The source
vector is not changed.""",
         result="x minimising ‖A x - {2}‖, A factored in {1}",
         roles={"src1": "the packed result of `zelmQRDecomp`", "src2": "the right-hand side b",
                "dst": "the solution x"},
         args={"width": "columns of the matrix, elements of x", "height": "rows of the matrix, elements of b"},
         scratch="`pBuffer`: `height` elements of the element type, a working copy of one right-hand "
                 "side."),
    dict(page="solvers", title="Invert", op="Invert",
         summary="inverses of square matrices",
         text="""\
Each order has its own method (cofactors for small orders, a pivot-row and
Schur complement scheme for orders 5 and 6 in `32f`, elimination with
pivoting otherwise), chosen by order, type and whether the rows are
contiguous, so rounding can differ between strides and forms. A matrix
counts as singular when its determinant, or a pivot, falls below about
T(n) = 2 n³ times the smallest normal number of the type (for example
54 x 2^-126 at order 3 in `32f`): an absolute threshold, not scaled by the
matrix. The fixed 4x4 form is under [Invert (m4)](geometry.md#invert-m4).""",
         result="{1}⁻¹",
         roles={"src": "the matrix", "dst": "its inverse"},
         statuses=[("zelStsErrSingular", "the matrix is singular to the threshold T(n); in an array the "
                    "objects before it are complete and later ones untouched")],
         scratch="`pBuffer`: `widthHeight`² + `widthHeight` elements of the element type (a working "
                 "matrix and a row table), used by the orders without a method of their own; not null in "
                 "any call."),
    dict(page="solvers", title="Det", op="Det",
         summary="determinants of square matrices, one number per object",
         text="""\
Orders 3 to 6 are written-out cofactor expansions. With contiguous rows
(`srcStride2` the element size) most kernels evaluate them in the
processor's 80-bit extended format and round once; `zelmDet_ma_32f` at order
3, and every kernel for other strides, stay in the element type. Other
orders use
Gaussian elimination in the scratch matrix. A singular matrix is no error:
its determinant is 0 on the elimination path and whatever the expansion
gives on the others. The size argument stands before `pBuffer` here. The
fixed 4x4 form is under [Det (m4)](geometry.md#det-m4).""",
         result="det({1})",
         roles={"src": "the matrices"},
         scratch="`pBuffer`: `widthHeight`² + `widthHeight` elements of the element type, used by the "
                 "elimination path (orders 1, 2 and from 7); not null in any call."),
    # -- eigen ---------------------------------------------------------------
    dict(page="eigen", title="EigenValuesSym", op="EigenValuesSym",
         summary="eigenvalues of real symmetric matrices",
         text="""\
Reduces the matrix to tridiagonal form by Householder reflections, then
iterates with implicitly shifted QL. From order 3 on the eigenvalues come
sorted in descending order; at order 2 the one of larger magnitude comes
first. Both triangles are read (at order 2 only (0,0), (0,1) and (1,1));
symmetry is not checked. Tolerances are absolute (2^-23 for `32f`, 2^-52 for
`64f`), not scaled by the matrix: this family is made for matrices of
moderate scale.""",
         result="eigenvalues of {1}",
         roles={"src": "the symmetric matrices"},
         args={"pDstValues": "eigenvalues, `widthHeight` per object, compact"},
         statuses=[("zelStsErrSingular", "the product of the eigenvalues is negligible (at order 2: the "
                    "determinant). From order 3 on the eigenvalues are found and stored all the same; at "
                    "order 2 nothing is written"),
                   ("zelStsErrNoConvergence", "an eigenvalue took more than 30 QL sweeps; the values of "
                    "this object mean nothing")],
         scratch="`pBuffer`: `widthHeight`² elements of the element type, the working matrix, "
                 "reused by every object."),
    dict(page="eigen", title="EigenValuesVectorsSym", op="EigenValuesVectorsSym",
         summary="eigenvalues and orthonormal eigenvectors of real symmetric matrices",
         text="""\
As `zelmEigenValuesSym`, and the rotations are accumulated into the
eigenvector matrix: column j of each destination matrix is the unit
eigenvector of eigenvalue j.""",
         result="eigenvalues and eigenvectors of {1}",
         roles={"src": "the symmetric matrices", "dst": "the eigenvectors, one per column"},
         args={"pDstValues": "eigenvalues, `widthHeight` per object, compact"},
         statuses=[("zelStsErrSingular", "the product of the eigenvalues is negligible (at order 2: the "
                    "determinant). From order 3 on values and vectors are stored all the same (single "
                    "objects sorted, arrays unsorted); at order 2 nothing is written"),
                   ("zelStsErrNoConvergence", "an eigenvalue took more than 30 QL sweeps; values and "
                    "vectors of this object mean nothing")],
         scratch="`pBuffer`: `widthHeight`² elements of the element type, the working matrix, "
                 "reused by every object."),
    dict(page="eigen", title="EigenValues", op="EigenValues",
         summary="eigenvalues of general real matrices, real and imaginary parts",
         text="""\
Reduces the matrix to upper Hessenberg form and runs double-shift QR, with a
budget of 30 n sweeps. The eigenvalues are not sorted; a complex pair takes
two adjacent positions, the one with the positive imaginary part first. A
singular matrix is no error: its eigenvalue 0 is reported like any other.
There is no balancing, so badly scaled matrices lose accuracy.""",
         result="eigenvalues of {1}",
         roles={"src": "the matrices"},
         args=VALUES_RE_IM,
         statuses=[("zelStsErrNoConvergence", "the QR iteration ran out of sweeps; only the eigenvalues "
                    "found by then (the higher positions) are stored")],
         scratch="`pBuffer`: the bytes that `zelmEigenValuesGetBufSize_32f` (`_64f`) reports for "
                 "`widthHeight`, n (n + 5) elements; one object's worth, reused by every object."),
    dict(page="eigen", title="EigenValuesVectors", op="EigenValuesVectors",
         summary="eigenvalues and right and left eigenvectors of general real matrices",
         text="""\
The QR iteration of `zelmEigenValues` with the transformations accumulated
into the real Schur form, then back-substitution for both sets of vectors.
The working matrix is the transpose of the source, so the "right" vectors x
satisfy xᵀ A = λ xᵀ and the "left" vectors y satisfy A ȳ = λ ȳ (ȳ the complex
conjugate). Vector j belongs to eigenvalue j; element (r, c) is component r
of vector c. For a complex pair at j, j + 1, column j holds the real part
and column j + 1 the imaginary part of the vector of eigenvalue j; the
vector of eigenvalue j + 1 is their conjugate.""",
         result="eigenvalues and both eigenvector sets of {1}",
         roles={"src": "the matrices", "dstRight": "right eigenvectors, one per column",
                "dstLeft": "left eigenvectors, one per column"},
         args=VALUES_RE_IM,
         statuses=[("zelStsErrNoConvergence", "the QR iteration ran out of sweeps (only the values found "
                    "stored, no vectors), or a complex eigenvector came out negligible (all values, no "
                    "vectors)"),
                   GENERIC_2X2],
         scratch=VECTORS_SCRATCH),
    dict(page="eigen", title="EigenValuesVectorsLeft", op="EigenValuesVectorsLeft",
         summary="eigenvalues and left eigenvectors of general real matrices",
         text="""\
The left set of `zelmEigenValuesVectors` alone (y with A ȳ = λ ȳ), same
conventions. It runs on the calling thread, also for arrays.""",
         result="eigenvalues and left eigenvectors of {1}",
         roles={"src": "the matrices", "dst": "the eigenvectors, one per column"},
         args=VALUES_RE_IM,
         statuses=[("zelStsErrNoConvergence", "the QR iteration ran out of sweeps; only the values found "
                    "are stored, no vectors"),
                   GENERIC_2X2],
         scratch=VECTORS_SCRATCH),
    dict(page="eigen", title="EigenValuesVectorsRight", op="EigenValuesVectorsRight",
         summary="eigenvalues and right eigenvectors of general real matrices",
         text="""\
The right set of `zelmEigenValuesVectors` alone (x with xᵀ A = λ xᵀ), same
conventions. It runs on the calling thread, also for arrays.""",
         result="eigenvalues and right eigenvectors of {1}",
         roles={"src": "the matrices", "dst": "the eigenvectors, one per column"},
         args=VALUES_RE_IM,
         statuses=[("zelStsErrNoConvergence", "the QR iteration ran out of sweeps (only the values found "
                    "stored), or a complex eigenvector came out negligible (all values); no vectors"),
                   GENERIC_2X2],
         scratch=VECTORS_SCRATCH),
    dict(page="eigen", title="EigenValuesGetBufSize", op="EigenValuesGetBufSize",
         summary="bytes of scratch that EigenValues needs for one matrix",
         text="""\
Stores 4 n (n + 5) bytes for `32f`, 8 n (n + 5) for `64f`, n being
`widthHeight` (for example 144 and 288 at order 4). One buffer of that size
serves a whole array call.""",
         args={"widthHeight": "order n of the matrices", "pSize": "receives the size in bytes"}),
    dict(page="eigen", title="EigenValuesVectorsGetBufSize", op="EigenValuesVectorsGetBufSize",
         summary="bytes of scratch that EigenValuesVectors, EigenValuesVectorsLeft and EigenValuesVectorsRight need",
         text="""\
Stores 4 n (3n + 5) bytes for `32f`, 8 n (3n + 5) for `64f`, n being
`widthHeight` (for example 272 and 544 at order 4). One buffer of that size
serves a whole array call.""",
         args={"widthHeight": "order n of the matrices", "pSize": "receives the size in bytes"}),
    # -- geometry: the fixed-size members of the grid's operations -----------
    dict(page="geometry", title="Add (v2, v3, v4)", op="Add", fixed=True,
         summary="sum of two small vectors", text="dst[i] = a[i] + b[i]."),
    dict(page="geometry", title="Sub (v2, v3, v4)", op="Sub", fixed=True,
         summary="difference of two small vectors", text="dst[i] = a[i] - b[i]."),
    dict(page="geometry", title="MulC", op="MulC",
         summary="small vector times a scalar", text="dst[i] = src[i] * `val`."),
    dict(page="geometry", title="Min", op="Min",
         summary="component-wise minimum of two small vectors",
         text="dst[i] = a[i] < b[i] ? a[i] : b[i]: on a tie or a NaN the second source wins."),
    dict(page="geometry", title="Max", op="Max",
         summary="component-wise maximum of two small vectors",
         text="dst[i] = a[i] > b[i] ? a[i] : b[i]: on a tie or a NaN the second source wins."),
    dict(page="geometry", title="DotProduct (v2, v3, v4)", op="DotProduct", fixed=True,
         summary="dot product of two small vectors",
         text="One value, the products summed in index order: ((a[0] b[0] + a[1] b[1]) + a[2] b[2]) + "
              "a[3] b[3], as far as the length reaches.",
         args={"pDst": "receives the one value"}),
    dict(page="geometry", title="LenSqr", op="LenSqr",
         summary="squared length of a small vector",
         text="One value, the sum of squares in index order.",
         args={"pDst": "receives the one value"}),
    dict(page="geometry", title="Len", op="Len",
         summary="length of a small vector",
         text="The sum of squares in 32 bits, its square root taken in 64 bits and rounded to 32.",
         args={"pDst": "receives the one value"}),
    dict(page="geometry", title="Normalize", op="Normalize",
         summary="a small vector scaled to unit length",
         text="Each element divided by the length of `zelmLen`. A zero vector gives NaN in every element "
              "(status 0)."),
    dict(page="geometry", title="CrossProduct (v2, v3, v4)", op="CrossProduct", fixed=True,
         summary="cross products of small vectors",
         text="""\
`v2`: one value, a[0] b[1] - a[1] b[0] (the z component of the 3D cross
product). `v3`: the usual cross product, three values. `v4`: the vector
orthogonal to three 4-element vectors a, b, c (the 4D cross product), from
the 2x2 minors of b and c.""",
         args={"pDst": "destination: one value for `v2`, a v3 or a v4 otherwise"}),
    dict(page="geometry", title="BaryCentric", op="BaryCentric",
         summary="point from barycentric coordinates in a triangle",
         text="dst[i] = (b[i] - a[i]) `val1` + a[i] + (c[i] - a[i]) `val2`: `val1` weighs the second "
              "corner, `val2` the third.",
         args={"pSrc1": "corner a", "pSrc2": "corner b", "pSrc3": "corner c",
               "val1": "weight of b", "val2": "weight of c"}),
    dict(page="geometry", title="InterpolationLinear", op="InterpolationLinear",
         summary="linear interpolation between two small vectors",
         text="dst[i] = a[i] + (b[i] - a[i]) `val`: a at `val` 0, b at `val` 1.",
         args={"val": "the parameter s"}),
    dict(page="geometry", title="Hermite", op="Hermite",
         summary="cubic Hermite interpolation",
         text="The cubic curve from position a with tangent b (at s = 0) to position c with tangent d (at "
              "s = 1), at s = `val`. The weights are formed in 64 bits and rounded to 32.",
         args={"pSrc1": "start position a", "pSrc2": "start tangent b", "pSrc3": "end position c",
               "pSrc4": "end tangent d", "val": "the parameter s"}),
    dict(page="geometry", title="InterpolationCatmullRom", op="InterpolationCatmullRom",
         summary="Catmull-Rom spline interpolation",
         text="The curve between the second and third control points (s = 0 and s = 1), with tangents "
              "(p2 - p0) / 2 and (p3 - p1) / 2: `zelmHermite` on those.",
         args={"pSrc1": "control point p0", "pSrc2": "control point p1", "pSrc3": "control point p2",
               "pSrc4": "control point p3", "val": "the parameter s"}),
    dict(page="geometry", title="Identity", op="Identity",
         summary="the 4x4 identity", text="Writes all 16 elements."),
    dict(page="geometry", title="IsIdentity", op="IsIdentity",
         summary="tests a 4x4 matrix for the identity",
         text="`*pResult` becomes 1 when the 16 elements equal those of the identity exactly (no "
              "tolerance; -0 counts as 0, a NaN makes it 0), otherwise 0.",
         args={"pResult": "receives 1 or 0 (`unsigned int`)"}),
    dict(page="geometry", title="Scaling", op="Scaling",
         summary="4x4 scaling matrix", text="diag(x, y, z, 1).",
         args={"x": "scale along x", "y": "scale along y", "z": "scale along z"}),
    dict(page="geometry", title="Translation", op="Translation",
         summary="4x4 translation matrix", text="The identity with (x, y, z) in the last row.",
         args={"x": "offset along x", "y": "offset along y", "z": "offset along z"}),
    dict(page="geometry", title="RotationX", op="RotationX",
         summary="4x4 rotation about the x axis",
         text="Rows (1, 0, 0), (0, c, s), (0, -s, c) with c, s the cosine and sine of `angle`: y turns "
              "towards z for a row vector."),
    dict(page="geometry", title="RotationY", op="RotationY",
         summary="4x4 rotation about the y axis",
         text="Rows (c, 0, -s), (0, 1, 0), (s, 0, c): z turns towards x for a row vector."),
    dict(page="geometry", title="RotationZ", op="RotationZ",
         summary="4x4 rotation about the z axis",
         text="Rows (c, s, 0), (-s, c, 0), (0, 0, 1): x turns towards y for a row vector."),
    dict(page="geometry", title="RotationAxis", op="RotationAxis",
         summary="4x4 rotation about an arbitrary axis",
         text="The axis is normalised inside; a zero axis gives NaN.",
         args={"pAxis": "the axis, a v3"}),
    dict(page="geometry", title="RotationYawPitchRoll", op="RotationYawPitchRoll",
         summary="4x4 rotation from yaw, pitch and roll",
         text="The product RotationZ(`roll`) RotationX(`pitch`) RotationY(`yaw`): a row vector is rolled "
              "about z, then pitched about x, then yawed about y.",
         args={"yaw": "angle about y, radians", "pitch": "angle about x, radians",
               "roll": "angle about z, radians"}),
    dict(page="geometry", title="LookAtLH", op="LookAtLH",
         summary="left-handed view matrix of a camera",
         text="The camera at `pEye` looks at `pAt` along +z with `pUp` giving the up direction; the axes "
              "are normalised cross products. `pEye` equal to `pAt`, or `pUp` along the view direction, "
              "gives NaN."),
    dict(page="geometry", title="LookAtRH", op="LookAtRH",
         summary="right-handed view matrix of a camera",
         text="As `zelmLookAtLH_m4_32f`, looking along -z."),
    dict(page="geometry", title="OrthoLH", op="OrthoLH",
         summary="left-handed orthographic projection",
         text="Maps a box of `viewWidth` x `viewHeight` centred on the z axis to x, y in -1 .. 1, and z "
              "from `zNear` .. `zFar` to 0 .. 1."),
    dict(page="geometry", title="OrthoRH", op="OrthoRH",
         summary="right-handed orthographic projection",
         text="As `zelmOrthoLH_m4_32f`, with z from -`zNear` .. -`zFar` to 0 .. 1."),
    dict(page="geometry", title="OrthoOffCenterLH", op="OrthoOffCenterLH",
         summary="left-handed orthographic projection of an off-centre box",
         text="Maps x from `left` .. `right` and y from `bottom` .. `top` to -1 .. 1, z from `zNear` .. "
              "`zFar` to 0 .. 1."),
    dict(page="geometry", title="OrthoOffCenterRH", op="OrthoOffCenterRH",
         summary="right-handed orthographic projection of an off-centre box",
         text="As `zelmOrthoOffCenterLH_m4_32f`, with z from -`zNear` .. -`zFar` to 0 .. 1."),
    dict(page="geometry", title="PerspectiveLH", op="PerspectiveLH",
         summary="left-handed perspective projection",
         text="A view volume whose cross-section at the near plane is `viewWidth` x `viewHeight`; after "
              "the division by w, depth runs from 0 at `zNear` to 1 at `zFar`. w is z."),
    dict(page="geometry", title="PerspectiveRH", op="PerspectiveRH",
         summary="right-handed perspective projection",
         text="As `zelmPerspectiveLH_m4_32f` looking along -z: w is -z."),
    dict(page="geometry", title="PerspectiveFovLH", op="PerspectiveFovLH",
         summary="left-handed perspective projection from a field of view",
         text="y is scaled by cot(`fovY` / 2) and x by that over `aspect`; depth from 0 at `zNear` to 1 at "
              "`zFar`."),
    dict(page="geometry", title="PerspectiveFovRH", op="PerspectiveFovRH",
         summary="right-handed perspective projection from a field of view",
         text="As `zelmPerspectiveFovLH_m4_32f` looking along -z."),
    dict(page="geometry", title="PerspectiveOffCenterLH", op="PerspectiveOffCenterLH",
         summary="left-handed perspective projection of an off-centre view volume",
         text="The near plane spans x from `left` to `right` and y from `bottom` to `top`; depth from 0 "
              "at `zNear` to 1 at `zFar`."),
    dict(page="geometry", title="PerspectiveOffCenterRH", op="PerspectiveOffCenterRH",
         summary="right-handed perspective projection of an off-centre view volume",
         text="As `zelmPerspectiveOffCenterLH_m4_32f` looking along -z."),
    dict(page="geometry", title="Mul (mm4x4)", op="Mul", fixed=True,
         summary="product of two 4x4 matrices",
         text="dst = src1 src2, each element summed in the order of k. All sources are read before the "
              "first store, so `pDst` may be either source. The one function of this page besides "
              "`zelmAffineTransform3DH_mva_32f` that checks its pointers."),
    dict(page="geometry", title="MulTranspose", op="MulTranspose",
         summary="transposed product of two 4x4 matrices",
         text="dst = (src1 src2)ᵀ."),
    dict(page="geometry", title="Transpose (m4)", op="Transpose", fixed=True,
         summary="transpose of a 4x4 matrix",
         text="dst[i][j] = src[j][i], element by element: it cannot run in place."),
    dict(page="geometry", title="Det (m4)", op="Det", fixed=True,
         summary="determinant of a 4x4 matrix",
         text="By cofactors of the last two rows. A singular matrix gives 0 or a tiny value, status 0.",
         args={"pDst": "receives the determinant"}),
    dict(page="geometry", title="Invert (m4)", op="Invert", fixed=True,
         summary="inverse and determinant of a 4x4 matrix",
         text="""\
Gauss-Jordan elimination with the pivot taken as the largest element of each
row. The threshold is absolute: a pivot row whose largest magnitude is below
12 x 2^-23 (about 1.43e-6) makes the matrix singular, which differs from the
general `zelmInvert`.""",
         args={"pSrc": "the matrix", "pDet": "receives the determinant; may be null",
               "pDst": "its inverse"},
         statuses=[("zelStsErrSingular", "a pivot is below the threshold: `pDst` is untouched and "
                    "`*pDet` (if given) is 0")]),
    dict(page="geometry", title="AffineTransform", op="AffineTransform",
         summary="transforms points by a 4x4 matrix",
         text="""\
The point as a row vector (x, y, 0, 1) for `m4v2`, (x, y, z, 1) for `m4v3`,
the vector itself for `m4v4`, times the matrix. All four components of the
result are written, also for `v2` and `v3` sources: the destination needs
room for four floats per vector. There is no division by w.""",
         args={"pDst": "destination, four floats per vector"}),
    dict(page="geometry", title="AffineTransformCoord", op="AffineTransformCoord",
         summary="transforms points by a 4x4 matrix and divides by w",
         text="(x, y[, z], 1) times the matrix, divided by the resulting w, with no test of w (w = 0 "
              "gives infinities or NaN). Writes as many components as the source has."),
    dict(page="geometry", title="AffineTransformNormal", op="AffineTransformNormal",
         summary="transforms directions by the upper 3x3 (or 2x2) part of a 4x4 matrix",
         text="(x, y[, z], 0) times the matrix: the translation is left out. Writes as many components "
              "as the source has."),
    dict(page="geometry", title="Project", op="Project",
         summary="projects points from object space to a viewport",
         text="""\
The point goes through `pWorld`, `pView` and `pProjection` in turn, each
with the division by w of `zelmAffineTransformCoord`, then to the viewport:
x from 0 to `viewportWidth`, y from 0 at the top to `viewportHeight` at the
bottom, depth from `viewportMinZ` to `viewportMaxZ`. There is no viewport
origin.""",
         args={"pSrc": "the point(s), v3", "pDst": "the projected point(s), v3"}),
    dict(page="geometry", title="Unproject", op="Unproject",
         summary="maps viewport points back to object space",
         text="""\
The inverse of `zelmProject`: viewport coordinates are normalised, then
transformed by the inverse of `pWorld` `pView` `pProjection` (computed by
`zelmInvert_m4_32f`) with the division by w. The array form inverts once for
all points.""",
         args={"pSrc": "the viewport point(s), v3", "pDst": "the point(s) in object space, v3"},
         statuses=[("zelStsErrSingular", "the product of the three matrices is singular (see `zelmInvert_m4_32f`): "
                    "the single form leaves the normalised coordinates in `pDst`, the array form writes "
                    "nothing")]),
    dict(page="geometry", title="AffineTransform3DH", op="AffineTransform3DH",
         summary="homogeneous transform of an array of 3-vectors as columns, with strides and threads",
         text="""\
Unlike the rest of this page the vectors are columns: M (x, y, z, 1)ᵀ, then
the first three components divided by w, the last row's sum. The matrix and
the vectors have byte strides as in the grid of the library, the call is
checked, and large arrays are divided among threads. A vector whose |w| is
not above the smallest normal float (2^-126) gets the largest float in all
three components; the others are transformed all the same.""",
         args={"pSrc1": "the 4x4 matrix M", "src1Stride1": "bytes between rows of M",
               "src1Stride2": "bytes between elements of a row of M", "pSrc2": "the 3-vectors",
               "src2Stride0": "bytes between source vectors", "src2Stride2": "bytes between their elements",
               "pDst": "the results, 3-vectors", "dstStride0": "bytes between destination vectors",
               "dstStride2": "bytes between their elements", "count": "number of vectors"},
         statuses=[("zelStsErrDivByZero", "some vector had |w| at most 2^-126; all vectors are processed")]),
    # -- library -------------------------------------------------------------
    dict(page="library", title="GetLibVersion", op="GetLibVersion",
         summary="the library's constant version record",
         text="""\
Returns a pointer to one constant `zelLibVersion` record, the same on every
call; the caller must not change it. Fields: `major`, `minor`, `update`,
`revision` (7, 1, 1, 37466), `cpuCode` ("w7", the processor variant: 128-bit
SSE2), `name` ("zelm SSE2 (w7)"), `version` ("7.1.1 (r37466)") and
`buildDate`. It cannot fail and returns no status."""),
]

# ---------------------------------------------------------------------------
# The page on names, operands and storage forms. {groups} and {statuses} are
# filled by the generator: the argument groups from the generator's own rule,
# the statuses from include/zelm_types.h.
NAMES_PAGE = """\
# Names, operands and storage forms

zelm's interface is one regular grid: the name of an export says what it
computes, on what kind of operands, in which element type and in which
storage form, and the argument list follows from the name. This page is that
grammar; the [entries](README.md) name only what is particular to each
operation.

## Names

Every export is named `zelm<Op>_<signature>_<type>[_<form>]`:

| part | in `zelmSub_tama_64f_L` | meaning |
|---|---|---|
| `<Op>` | `Sub` | the operation |
| `<signature>` | `tama` | the operands, left to right in the mathematical expression: an array of transposed matrices, an array of matrices |
| `<type>` | `64f` | the element type: `32f` is `float` (IEEE binary32), `64f` is `double` (binary64) |
| `<form>` | `L` | the storage form: none for standard, `L` list, `P` pointer |

So `zelmSub_tama_64f_L` computes src1[n]ᵀ - src2[n] for n = 0 .. `count`-1,
in `double`, with both sources and the destination given as tables of object
pointers. Copy has two form letters, the source's then the destination's
(`zelmCopy_ma_32f_PS`). Outside the pattern stand `zelmGetLibVersion`, the
four buffer-size queries of the eigenproblems, and the fixed-size functions
of [geometry](geometry.md), whose names carry `v2`, `v3`, `v4` or `m4`
(`float` only).

## Signatures

| letter | operand |
|---|---|
| `m` | a matrix, read as stored |
| `t` | a matrix, read as the transpose of what is stored |
| `v` | a vector |
| `c` | a constant |
| `a` behind one of these | an array of `count` such objects instead of one |

`mam` is an array of matrices and one matrix, `mta` one matrix and an array
of transposed matrices, `vaca` an array of vectors and an array of
constants. An operation with an array letter works on the objects
n = 0 .. `count`-1 and gives `count` results; object n of the result comes
from object n of each array operand and from the single operands, which
serve every object. An operation without an array letter works on one
object and has no `count`.

A `t` operand is stored as the transpose of what takes part. Where an
operation has one `width` and one `height` (element-wise operations,
Extract), they are the result's, and a `t` operand is stored with `width`
rows of `height` elements. The products, Gaxpy and Transpose give each
operand's sizes as it lies in memory.

Not every operation has every signature: each entry lists its own, and a
missing one is reached by swapping the operands (Add has `tm` but no `mt`).

## Storage forms

Every operand of a call has the same form, except in Copy and the single
operands of a list call, which stay standard. Strides and shifts are in
bytes, never in elements.

Standard form, no suffix: a base pointer and byte strides. Element (i, j) of
object n is at `pX + n*stride0 + i*stride1 + j*stride2`; a single object has
no stride0.

```
 pSrc
  |
  v
  +-----+-----+-----+----   +-----+-----+-----+----   +-----+-----+-----+----   +-----+-----+
  | a00 | a01 | a02 | ..    | a10 | a11 | a12 | ..    | b00 | b01 | b02 | ..    | b10 | b11 | ..
  +-----+-----+-----+----   +-----+-----+-----+----   +-----+-----+-----+----   +-----+-----+
  |<--->| stride2           |                         |
  |<------ stride1 -------->|                         |
  |<------------------- stride0 --------------------->|   object 0 is a, object 1 is b
```

List form, `_L`: a table of `count` object pointers; each object lies
anywhere, but regularly inside. Element (i, j) of object n is at
`ppX[n] + shift + i*stride1 + j*stride2`.

```
 ppSrc
 +-------+
 | pp[0] |---->  a00 a01 a02 | a10 a11 a12      rows stride1 apart, elements stride2 apart
 +-------+
 | pp[1] |---->  b00 b01 b02 | b10 b11 b12      somewhere else entirely
 +-------+
 | pp[2] |---->  c00 c01 c02 | c10 c11 c12
 +-------+
```

Pointer form, `_P`: a table of element pointers, one per element position
k = i*width + j of a matrix (j of a vector); the objects of each position
lie stride0 apart from there. Element (i, j) of object n is at
`ppX[i*width + j] + shift + n*stride0`. There is no stride1 or stride2: an
object need not be regular in memory at all, and a single object is just its
table and a shift.

```
 ppSrc
 +---------+
 | pp[0,0] |---->  a00 | b00 | c00      element (0, 0) of objects 0, 1, 2, stride0 apart
 +---------+
 | pp[0,1] |---->  a01 | b01 | c01      element (0, 1) of objects 0, 1, 2
 +---------+
 |   ...   |
 +---------+
 | pp[1,2] |---->  a12 | b12 | c12
 +---------+
```

The table of a `t` operand follows the stored matrix: position (i, j) of
what takes part is entry j*height + i. An array of constants (`ca`) is
`pVal + n*valStride0` in the standard and `_P` forms and `ppVal[n] +
valShift` in the `_L` form; a single constant is passed by value as `val`.

Which forms exist: every signature exists for `32f` and `64f`, in the
standard and `_P` forms if it has no array letter, and in the standard,
`_L` and `_P` forms if it has one. Copy has all nine pairs of a source form
and a destination form.

## Operand groups

Each operand contributes a group of adjacent arguments, by its letter and the
form of the call. Below, `Src` and `src` stand for the operand's name:
`Src`, `Src1`, `Src2`, `Src3` or `Dst`, with argument names such as
`pSrc1`, `src1Stride0`, `ppDst`, `dstShift`; `T` is the element type.

{groups}

A `t` operand has the group of an `m` operand, and a single operand of a
list call keeps its standard group. The argument list is the
groups of the sources in the order of the signature's letters, the
constant's group, the destination's group, then the sizes (`width`,
`height`, or `len`) and `count`. Families that take more (sizes per operand,
a pivot table, scratch, value arrays) put them where their entries show.

Strides and shifts:

| argument | meaning |
|---|---|
| stride0 (`srcStride0` ...) | bytes between consecutive objects of an array |
| stride1 | bytes between consecutive rows of a matrix |
| stride2 | bytes between consecutive elements of a row or of a vector |
| shift (`srcShift` ...) | bytes added to each pointer taken from a table |
| `valStride0`, `valShift` | the same for an array of constants |

A stride must be at least 1 and a multiple of the element size (4 or 8); a
shift must be at least 0 and a multiple of it. Nothing else is asked of
alignment, and no relation between strides and sizes is tested: rows may
overlap. When every stride2 of a call equals the element size, kernels for
contiguous rows run; their results can differ in the last bit from the
other kernels in the families that sum or factor.

## Status

Every export except `zelmGetLibVersion` returns a `zelStatus`, a signed
32-bit integer: 0 is success, failures are negative, there are no warnings
and the library has no text for them.

{statuses}

The arguments are tested first, each kind where the export has it, in the
order pointers, `count`, sizes, size relation, strides, shifts; the entries
list the exports that test in another order. The first test that fails
returns its status and nothing has been read or written. Only a pointer to a
table is tested, never its entries, and a `val` is never tested.

A numerical failure (singular, not positive definite, no convergence) ends
the work on the failing object with its status; its entry says what stands
in the destination then. In an array the objects before it are complete and
the later ones untouched. When a large array call is divided among threads,
the other threads finish their objects, and the call returns one failure for
the whole array.

## Threads and numbers

Array calls above a work threshold are divided among OpenMP threads (LLVM's
runtime, `libomp`) into contiguous slices; each object is computed by the
same code as in a call on one thread. `zelSetNumThreads` of
[`libzelcore`](library.md#libzelcore) limits the threads. Any number of
application threads may call any function at once, as long as they keep off
each other's destinations. All memory belongs to the caller.

Arithmetic stays in the element type, with every product rounded before it
is added: no fused multiply-add, no fast-math, `32f` sums in 32 bits. The
library is built for the x86-64 baseline (SSE2); where the processor has
AVX a few paths use it with exactly the same operations, so every result is
the same bits on any x86-64 processor.
"""
