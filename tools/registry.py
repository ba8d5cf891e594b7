"""The registry of zelm's exports: the one machine-readable list from which the
public header, the export stubs with their dispatch cells, the API functions
with their argument checks, the linker's export list and the tables that the
tests iterate are generated (tools/gen.py).

Everything here is data. The grammar is regular: a member is an operation with
its signatures; types, forms and argument lists follow from the rules below.
"""

# ---------------------------------------------------------------------------
# Members: operation, signatures without array letter, signatures with array
# letter, fixed-size signatures, the number of exports the grid gives, and the
# subsystem folder that implements it.
MEMBERS = [
    ("Add",            "mm tm tt vv vc",        "mam mat tam tat mama tama tata vav vava vac vca vaca", "v2 v3 v4", 95, "elementwise"),
    ("Sub",            "mm mt tm tt vv vc cv",  "mam mat tam tat mma mta tma tta mama mata tama tata vav vva vava vac vca vaca cav cva cava", "v2 v3 v4", 157, "elementwise"),
    ("Mul",            "mc tc vc mm mt tm tt mv tv",
                       "mac tac vac vca vaca mam mat tam tat mma mta tma tta mama mata tama tata mav tav mva tva mava tava", "mm4x4", 175, "products"),
    ("Copy",           "",       "ma va",          "",          36, "movement"),
    ("LoadIdentity",   "",       "ma",             "",           6, "movement"),
    ("Extract",        "m t v",  "ma ta va",       "",          30, "movement"),
    ("Transpose",      "m",      "ma",             "m4",        11, "movement"),
    ("Gaxpy",          "mv",     "mva mvav",       "",          16, "products"),
    ("DotProduct",     "vv",     "vav vava",       "v2 v3 v4",  19, "vectors"),
    ("L2Norm",         "v",      "va",             "",          10, "vectors"),
    ("CrossProduct",   "vv",     "vav vva vava",   "v2 v3 v4",  25, "vectors"),
    ("Saxpy",          "vv",     "vav vva vava",   "",          22, "vectors"),
    ("LComb",          "vv",     "vav vava",       "",          16, "vectors"),
    ("Trace",          "m",      "ma",             "",          10, "vectors"),
    ("FrobNorm",       "m",      "ma",             "",          10, "vectors"),
    ("LUDecomp",       "m",      "ma",             "",          10, "solvers"),
    ("LUBackSubst",    "mv",     "mva mava",       "",          16, "solvers"),
    ("CholeskyDecomp", "m",      "ma",             "",          10, "solvers"),
    ("CholeskyBackSubst", "mv",  "mva mava",       "",          16, "solvers"),
    ("QRDecomp",       "m",      "ma",             "",          10, "solvers"),
    ("QRBackSubst",    "mv",     "mva mava",       "",          16, "solvers"),
    ("Invert",         "m",      "ma",             "m4",        11, "solvers"),
    ("Det",            "m",      "ma",             "m4",        11, "solvers"),
    ("EigenValuesSym", "m",      "ma",             "",          10, "eigen"),
    ("EigenValuesVectorsSym", "m", "ma",           "",          10, "eigen"),
    ("EigenValues",    "m",      "ma",             "",          10, "eigen"),
    ("EigenValuesVectors", "m",  "ma",             "",          10, "eigen"),
    ("EigenValuesVectorsLeft", "m", "ma",          "",          10, "eigen"),
    ("EigenValuesVectorsRight", "m", "ma",         "",          10, "eigen"),
]

# Exports outside the grammar whose prototypes are listed whole, one a line
# (fixed-size geometry and the eigen size queries), with the member they count
# under; the fixed-size signatures of MEMBERS are among them.
FIXED_FILE = "tools/fixed_exports.txt"
GEOMETRY_OPS = """AffineTransform AffineTransformCoord AffineTransformNormal AffineTransform3DH
Project Unproject BaryCentric Hermite InterpolationCatmullRom InterpolationLinear Len LenSqr Max Min
MulC Normalize Identity IsIdentity LookAtLH LookAtRH MulTranspose OrthoLH OrthoOffCenterLH
OrthoOffCenterRH OrthoRH PerspectiveFovLH PerspectiveFovRH PerspectiveLH PerspectiveOffCenterLH
PerspectiveOffCenterRH PerspectiveRH RotationAxis RotationX RotationY RotationYawPitchRoll RotationZ
Scaling Translation""".split()
# Exports per operation outside MEMBERS, for the generator's self-check.
OTHER_COUNTS = {
    "AffineTransform": 6, "AffineTransformCoord": 4, "AffineTransformNormal": 4,
    "AffineTransform3DH": 1, "Project": 2, "Unproject": 2,
    **{op: 3 for op in "BaryCentric Hermite InterpolationCatmullRom InterpolationLinear Len LenSqr Max Min MulC Normalize".split()},
    **{op: 1 for op in """Identity IsIdentity LookAtLH LookAtRH MulTranspose OrthoLH OrthoOffCenterLH
        OrthoOffCenterRH OrthoRH PerspectiveFovLH PerspectiveFovRH PerspectiveLH PerspectiveOffCenterLH
        PerspectiveOffCenterRH PerspectiveRH RotationAxis RotationX RotationY RotationYawPitchRoll
        RotationZ Scaling Translation""".split()},
    "EigenValuesGetBufSize": 2, "EigenValuesVectorsGetBufSize": 2, "GetLibVersion": 1,
}
TOTAL = 874

# The module that implements an operation where its subsystem holds several:
# "folder/name" is the header folder/name.hpp with the family's entry<> in
# namespace zel::name, and its API functions go to frame/generated/api_name.cpp.
# Elsewhere the module is the subsystem ("products": products/products.hpp,
# zel::products).
MODULES = {
    "LUDecomp": "solvers/lu", "LUBackSubst": "solvers/lu",
    "CholeskyDecomp": "solvers/cholesky", "CholeskyBackSubst": "solvers/cholesky",
    "QRDecomp": "solvers/qr", "QRBackSubst": "solvers/qr",
    "Invert": "solvers/invert", "Det": "solvers/det",
    "EigenValuesSym": "eigen/eigensym", "EigenValuesVectorsSym": "eigen/eigensym",
    "EigenValues": "eigen/eigengen", "EigenValuesVectors": "eigen/eigengen",
    "EigenValuesVectorsLeft": "eigen/eigengen", "EigenValuesVectorsRight": "eigen/eigengen",
}

# ---------------------------------------------------------------------------
# Argument lists. Each grammar export's arguments are the operand groups of its
# signature letters, in the layout of its family. An entry names, in order:
#   src / src1 / src2 / src3 : a source operand group (letters from the signature)
#   dst                       : the destination group
#   dst:Name                  : a destination group with its own names (pDst<Name>, dst<Name>...)
#   const                     : the constant group (val, or pVal/ppVal with its stride or shift)
#   a plain name              : an extra scalar or pointer argument (types in EXTRA_TYPES)
#   [count]                   : count, in array signatures only
# The elementwise layout is derived (see gen.py); the others are spelled out.
LAYOUTS = {
    "Mul.product":  "src1 src1Width src1Height src2 {src2size} dst [count]",
    "Gaxpy":        "src1 src1Width src1Height src2 src2Len src3 src3Len dst [count]",
    "DotProduct":   "src1 src2 pDst len [count]",
    "L2Norm":       "src pDst len [count]",
    "CrossProduct": "src1 src2 dst [count]",
    "Saxpy":        "src1 val src2 dst len [count]",
    "LComb":        "src1 val1 src2 val2 dst len [count]",
    "Trace":        "src widthHeight pDst [count]",
    "FrobNorm":     "src width height pDst [count]",
    "Det":          "src widthHeight pBuffer pDst [count]",
    "Transpose":    "src width height dst [count]",
    "LoadIdentity": "dst width height count",
    "Extract":      "src pDst {sizes} [count]",
    "LUDecomp":     "src pDstIndex dst widthHeight [count]",
    "LUBackSubst":  "src1 pSrcIndex src2 dst widthHeight [count]",
    "CholeskyDecomp": "src dst widthHeight [count]",
    "CholeskyBackSubst": "src1 src2 dst widthHeight [count]",
    "QRDecomp":     "src pBuffer dst width height [count]",
    "QRBackSubst":  "src1 pBuffer src2 dst width height [count]",
    "Invert":       "src pBuffer dst widthHeight [count]",
    "EigenValuesSym": "src pBuffer pDstValues widthHeight [count]",
    "EigenValuesVectorsSym": "src pBuffer dst:Vectors pDstValues widthHeight [count]",
    "EigenValues":  "src pDstValuesRe pDstValuesIm widthHeight [count] pBuffer",
    "EigenValuesVectors": "src dst:VectorsRight dst:VectorsLeft pDstValuesRe pDstValuesIm widthHeight [count] pBuffer",
    "EigenValuesVectorsLeft": "src dst:Vectors pDstValuesRe pDstValuesIm widthHeight [count] pBuffer",
    "EigenValuesVectorsRight": "src dst:Vectors pDstValuesRe pDstValuesIm widthHeight [count] pBuffer",
}

# Operands of signatures whose letters don't say it all: Gaxpy's added vector
# y follows the array letter of its x unless the signature ends in a single v.
OPERANDS = {
    ("Gaxpy", "mv"): ["m", "v", "v"],
    ("Gaxpy", "mva"): ["m", "va", "va"],
    ("Gaxpy", "mvav"): ["m", "va", "v"],
}

# C types of extra arguments; T is the element type. Sizes are `int`.
EXTRA_TYPES = {
    "pDst": "T*", "pBuffer": "T*", "pDstValues": "T*", "pDstValuesRe": "T*", "pDstValuesIm": "T*",
    "pDstIndex": "int*", "pSrcIndex": "const int*",
    "val": "T", "val1": "T", "val2": "T",
}
SIZE_NAMES = {"width", "height", "len", "widthHeight", "count",
              "src1Width", "src1Height", "src2Width", "src2Height", "src2Len", "src3Len"}

# ---------------------------------------------------------------------------
# The order of the argument checks. Letters:
#   N null pointers (-8)   C count (-203)   Z sizes (-6)   M size relation (-204)
#   S strides (-182)       H shifts (-202)
#   K the stride0 arguments, tested only when count > 1 (Copy and LoadIdentity,
#     whose S then covers stride1 and stride2 only)
# A letter may be narrowed to one side, as "H.src" or "S.dst".
# A rule is (ops, signatures or "*", kind) -> (standard, _L, _P); the first
# rule that matches wins, and EXCEPTIONS win over rules.
CHECK_RULES = [
    # single objects
    ("Mul", "mm mt tm tt mv tv", "single", ("NZMS", None, "NZMH")),
    ("Gaxpy", "mv", "single", ("NZMS", None, "NZMH")),
    ("QRDecomp", "m", "single", ("NZSM", None, "NZHM")),
    ("QRBackSubst", "mv", "single", ("NZSM", None, "NZHM")),
    ("CrossProduct", "vv", "single", ("NS", None, "NH")),
    ("Extract", "m t", "single", ("NZS", None, "ZNH")),
    ("Extract", "v", "single", ("NZS", None, "NZH")),
    ("*", "*", "single", ("NZS", None, "NZH")),
    # arrays
    ("Add", "mam", "array", ("NCSZ", "NCZSH", "NCZSH")),
    ("Sub", "mam mma", "array", ("NCSZ", "NCZSH", "NCZSH")),
    ("Mul", "mam mat tam tat mma mta tma tta mama mata tama tata mav tav mva tva mava tava", "array",
     ("NCZMS", "NCZMSH", "NCZMSH")),
    ("Gaxpy", "mva mvav", "array", ("NCZMS", "NCZMSH", "NCZMSH")),
    ("QRDecomp", "ma", "array", ("NCZSM", "NCZSHM", "NCZSHM")),
    ("QRBackSubst", "mva mava", "array", ("NCZSM", "NCZSHM", "NCZSHM")),
    ("Add Sub", "vav", "array", ("NZSC", "NZSHC", "NZSCH")),
    ("CrossProduct", "vva vava", "array", ("NCS", "NCSH", "NCSH")),
    ("CrossProduct", "vav", "array", ("NSC", "NSHC", "NSCH")),
    ("EigenValues EigenValuesSym EigenValuesVectorsSym Extract", "*", "array", ("NZCS", "NZCHS", "NZCHS")),
    ("EigenValuesVectors EigenValuesVectorsLeft EigenValuesVectorsRight", "ma", "array",
     ("NZCS", "NZC H.src S.src H.dst S.dst", "NZC H.src S.src H.dst S.dst")),
    ("CholeskyBackSubst", "mva", "array", ("NCZS", "NSHZC", "NCZSH")),
    ("LoadIdentity", "ma", "array", ("NZCSK", "NZCSH", "NZCHK")),
    ("*", "*", "array", ("NCZS", "NCZSH", "NCZSH")),
]
CHECK_EXCEPTIONS = {
    "zelmExtract_v_64f_P": "ZNH",
    "zelmLoadIdentity_ma_32f_P": "NZHCK",
    "zelmCopy_va_32f_LP": "NZCHSK",
    "zelmCopy_va_32f_SP": "NZCHSK",
}
# Copy, by its two form letters.
COPY_CHECKS = {"SS": "NZCSK", "LL": "NZCSH", "PP": "NZCHK"}
COPY_CHECKS_MIXED = "NZCSHK"
# Fixed-size exports with checks (the rest have none).
FIXED_CHECKS = {
    "zelmEigenValuesGetBufSize_32f": "NZ", "zelmEigenValuesGetBufSize_64f": "NZ",
    "zelmEigenValuesVectorsGetBufSize_32f": "NZ", "zelmEigenValuesVectorsGetBufSize_64f": "NZ",
    "zelmAffineTransform3DH_mva_32f": "NCS",
    "zelmMul_mm4x4_32f": "N",
}

# Size relations (M), as C expressions over the argument names; array
# signatures use the relation of their single-object letters.
SIZE_RELATIONS = {
    ("Mul", "mm"): "src1Width == src2Height",
    ("Mul", "mt"): "src1Width == src2Width",
    ("Mul", "tm"): "src1Height == src2Height",
    ("Mul", "tt"): "src1Height == src2Width",
    ("Mul", "mv"): "src1Width == src2Len",
    ("Mul", "tv"): "src1Height == src2Len",
    ("Gaxpy", "mv"): "src1Width == src2Len && src1Height == src3Len",
    ("QRDecomp", "m"): "height >= width",
    ("QRBackSubst", "mv"): "height >= width",
}

# ---------------------------------------------------------------------------
# What is implemented and exported so far: operation -> signatures ("*" for
# all of its grammar signatures). An export not listed is declared in the
# header but neither built nor exported.
IMPLEMENTED = {
    "Add": "*",
    "Sub": "*",
    "Mul": "mc tc vc mac tac vac vca vaca"
           " mm mt tm tt mv tv mam mat tam tat mma mta tma tta mama mata tama tata mav tav mva tva mava tava",
    "Gaxpy": "*",
    "Copy": "*",
    "LoadIdentity": "*",
    "Extract": "*",
    "Transpose": "m ma",
    "DotProduct": "*",
    "L2Norm": "*",
    "CrossProduct": "*",
    "Saxpy": "*",
    "LComb": "*",
    "Trace": "*",
    "FrobNorm": "*",
    "LUDecomp": "*",
    "LUBackSubst": "*",
    "CholeskyDecomp": "*",
    "CholeskyBackSubst": "*",
    "QRDecomp": "*",
    "QRBackSubst": "*",
    "Invert": "m ma",
    "Det": "m ma",
    "EigenValuesSym": "*",
    "EigenValuesVectorsSym": "*",
    "EigenValues": "*",
    "EigenValuesVectors": "*",
    "EigenValuesVectorsLeft": "*",
    "EigenValuesVectorsRight": "*",
}
IMPLEMENTED_FIXED = {"zelmGetLibVersion"}
# Fixed-size geometry, all of it: vectors, 4x4 constructors, 4x4 operations and
# point transforms.
IMPLEMENTED_FIXED |= set("""
zelmAdd_v2_32f zelmAdd_v3_32f zelmAdd_v4_32f zelmSub_v2_32f zelmSub_v3_32f zelmSub_v4_32f zelmMulC_v2_32f
zelmMulC_v3_32f zelmMulC_v4_32f zelmMin_v2_32f zelmMin_v3_32f zelmMin_v4_32f zelmMax_v2_32f zelmMax_v3_32f
zelmMax_v4_32f zelmDotProduct_v2_32f zelmDotProduct_v3_32f zelmDotProduct_v4_32f zelmLenSqr_v2_32f
zelmLenSqr_v3_32f zelmLenSqr_v4_32f zelmLen_v2_32f zelmLen_v3_32f zelmLen_v4_32f zelmNormalize_v2_32f
zelmNormalize_v3_32f zelmNormalize_v4_32f zelmBaryCentric_v2_32f zelmBaryCentric_v3_32f
zelmBaryCentric_v4_32f zelmInterpolationLinear_v2_32f zelmInterpolationLinear_v3_32f
zelmInterpolationLinear_v4_32f zelmHermite_v2_32f zelmHermite_v3_32f zelmHermite_v4_32f
zelmInterpolationCatmullRom_v2_32f zelmInterpolationCatmullRom_v3_32f zelmInterpolationCatmullRom_v4_32f
zelmCrossProduct_v2_32f zelmCrossProduct_v3_32f zelmCrossProduct_v4_32f zelmIdentity_m4_32f
zelmIsIdentity_m4_32f zelmScaling_m4_32f zelmTranslation_m4_32f zelmRotationX_m4_32f zelmRotationY_m4_32f
zelmRotationZ_m4_32f zelmRotationAxis_v3m4_32f zelmRotationYawPitchRoll_m4_32f zelmLookAtLH_m4_32f
zelmLookAtRH_m4_32f zelmOrthoLH_m4_32f zelmOrthoRH_m4_32f zelmOrthoOffCenterLH_m4_32f
zelmOrthoOffCenterRH_m4_32f zelmPerspectiveLH_m4_32f zelmPerspectiveRH_m4_32f zelmPerspectiveFovLH_m4_32f
zelmPerspectiveFovRH_m4_32f zelmPerspectiveOffCenterLH_m4_32f zelmPerspectiveOffCenterRH_m4_32f
zelmMul_mm4x4_32f zelmMulTranspose_m4_32f zelmTranspose_m4_32f zelmDet_m4_32f zelmInvert_m4_32f
zelmAffineTransform_m4v2_32f zelmAffineTransform_m4v3_32f zelmAffineTransform_m4v4_32f
zelmAffineTransform_m4v2a_32f zelmAffineTransform_m4v3a_32f zelmAffineTransform_m4v4a_32f
zelmAffineTransformCoord_m4v2_32f zelmAffineTransformCoord_m4v3_32f zelmAffineTransformCoord_m4v2a_32f
zelmAffineTransformCoord_m4v3a_32f zelmAffineTransformNormal_m4v2_32f zelmAffineTransformNormal_m4v3_32f
zelmAffineTransformNormal_m4v2a_32f zelmAffineTransformNormal_m4v3a_32f zelmProject_m4v3_32f
zelmProject_m4v3a_32f zelmUnproject_m4v3_32f zelmUnproject_m4v3a_32f zelmAffineTransform3DH_mva_32f
""".split())
# The size queries of the general eigenproblem.
IMPLEMENTED_FIXED |= {
    "zelmEigenValuesGetBufSize_32f", "zelmEigenValuesGetBufSize_64f",
    "zelmEigenValuesVectorsGetBufSize_32f", "zelmEigenValuesVectorsGetBufSize_64f",
}

# Signatures whose standard form gets a short path on the arguments as they
# stand, before the call record is built: subsystem -> signatures. The
# family's quick<>() takes a zel::Quick and says whether it did the work.
QUICK = {"elementwise": {"vv", "vc", "cv"}}

# ---------------------------------------------------------------------------
# What an export reads and writes, for the tools that call any export from the
# registry alone: the argument fuzzer, the digests that compare the 32-bit and
# 64-bit builds, the sweep with a 4-byte aligned stack. A family describes
# here every operand group and every further pointer of its exports; gen.py
# fails when a pointer of an export is described by neither.
#
# Operand shapes, as stored: "rows,cols" as expressions over the argument
# names (count is 1 where an export has none). The first of these that has
# the group's name or its letter wins: SHAPES[(op, signature without its
# array letters)], SHAPES[op], LETTER_SHAPES. Where an operation has one
# `width` and one `height` they are the result's, so a `t` source is stored
# the other way round.
LETTER_SHAPES = {"m": "height,width", "t": "width,height", "v": "1,len", "c": "1,1"}
_SQUARE = {"m": "widthHeight,widthHeight", "v": "1,widthHeight"}
_PRODUCT = {"Src1": "src1Height,src1Width", "Src2": "src2Height,src2Width"}
_PRODUCT_MV = {"Src1": "src1Height,src1Width", "Src2": "1,src2Len"}
SHAPES = {
    ("Mul", "mm"): {**_PRODUCT, "Dst": "src1Height,src2Width"},
    ("Mul", "mt"): {**_PRODUCT, "Dst": "src1Height,src2Height"},
    ("Mul", "tm"): {**_PRODUCT, "Dst": "src1Width,src2Width"},
    ("Mul", "tt"): {**_PRODUCT, "Dst": "src1Width,src2Height"},
    ("Mul", "mv"): {**_PRODUCT_MV, "Dst": "1,src1Height"},
    ("Mul", "tv"): {**_PRODUCT_MV, "Dst": "1,src1Width"},
    "Gaxpy": {**_PRODUCT_MV, "Src3": "1,src3Len", "Dst": "1,src1Height"},
    "Transpose": {"Src": "height,width", "Dst": "width,height"},
    "CrossProduct": {"v": "1,3"},
    "Trace": _SQUARE,
    "QRBackSubst": {"Src1": "height,width", "Src2": "1,height", "Dst": "1,width"},
    **{op: _SQUARE for op in """LUDecomp LUBackSubst CholeskyDecomp CholeskyBackSubst Invert Det EigenValuesSym
        EigenValuesVectorsSym EigenValues EigenValuesVectors EigenValuesVectorsLeft
        EigenValuesVectorsRight""".split()},
    "AffineTransform3DH": {"m": "4,4", "v": "1,3"},
}

# Further pointers of the grid exports, by operation: "role:extent", the
# extent in elements of the pointer's type. Roles: `out` a compact result,
# written on success (and on a numerical failure, as far as the family says);
# `scratch` the caller's scratch, any content afterwards; `in` read only;
# `pivots` read only, each entry in 0 .. widthHeight-1. In extents, elems(G)
# is rows times columns of group G, objects(G) is count if G is an array,
# else 1.
_EIGEN_VALUES = {"pDstValuesRe": "out:widthHeight*count", "pDstValuesIm": "out:widthHeight*count"}
_EIGEN_VECTORS_BUF = {"pBuffer": "scratch:widthHeight*(3*widthHeight+5)"}
BLOCKS = {
    "Extract": {"pDst": "out:elems(Src)*count"},
    **{op: {"pDst": "out:count"} for op in ("DotProduct", "L2Norm", "Trace", "FrobNorm")},
    "Det": {"pDst": "out:count", "pBuffer": "scratch:widthHeight*widthHeight+widthHeight"},
    "Invert": {"pBuffer": "scratch:widthHeight*widthHeight+widthHeight"},
    "LUDecomp": {"pDstIndex": "out:widthHeight*count"},
    "LUBackSubst": {"pSrcIndex": "pivots:widthHeight*objects(Src1)"},
    "QRDecomp": {"pBuffer": "scratch:height"},
    "QRBackSubst": {"pBuffer": "scratch:height"},
    "EigenValuesSym": {"pBuffer": "scratch:widthHeight*widthHeight", "pDstValues": "out:widthHeight*count"},
    "EigenValuesVectorsSym": {"pBuffer": "scratch:widthHeight*widthHeight", "pDstValues": "out:widthHeight*count"},
    "EigenValues": {**_EIGEN_VALUES, "pBuffer": "scratch:widthHeight*(widthHeight+5)"},
    "EigenValuesVectors": {**_EIGEN_VALUES, **_EIGEN_VECTORS_BUF},
    "EigenValuesVectorsLeft": {**_EIGEN_VALUES, **_EIGEN_VECTORS_BUF},
    "EigenValuesVectorsRight": {**_EIGEN_VALUES, **_EIGEN_VECTORS_BUF},
}

# The pointers of the fixed-size exports: (export name pattern, parameters or
# "*", extent); the first row that matches a parameter wins. A const pointer
# is read, any other written. {k} is the vector length of the signature;
# "k@srcStride" is `count` vectors of k elements at that byte stride; "?"
# behind an extent: the pointer may be null.
FIXED_BLOCKS = [
    (r"zelm(DotProduct|LenSqr|Len)_v\d_32f$|zelmCrossProduct_v2_32f$|zelmDet_m4_32f$", "pDst", "1"),
    (r"zelmIsIdentity_m4_32f$", "pResult", "1"),
    (r"zelmInvert_m4_32f$", "pDet", "1?"),
    (r"_v\d_32f$", "*", "{k}"),
    (r"zelmRotationAxis_v3m4_32f$", "pAxis", "3"),
    (r"zelmLookAt", "pEye pAt pUp", "3"),
    (r"_m4_32f$|_mm4x4_32f$|_v3m4_32f$", "*", "16"),
    (r"_m4v\da?_32f$", "pMatrix pProjection pView pWorld", "16"),
    (r"zelmAffineTransform_m4v\da_32f$", "pDst", "4@dstStride"),
    (r"zelmAffineTransform_m4v\d_32f$", "pDst", "4"),
    (r"_m4v\da_32f$", "pSrc", "{k}@srcStride"),
    (r"_m4v\da_32f$", "pDst", "{k}@dstStride"),
    (r"_m4v\d_32f$", "pSrc pDst", "{k}"),
    (r"GetBufSize_(32|64)f$", "pSize", "1"),
]

# Statuses of numerical failures, by operation (the argument checks add
# theirs). Everything else an export returns is 0.
FAILURES = {
    "QRDecomp": "zelStsErrDivByZero",
    "AffineTransform3DH": "zelStsErrDivByZero",
    "CholeskyDecomp": "zelStsErrNotPosDefinite",
    "LUDecomp": "zelStsErrSingular",
    "Invert": "zelStsErrSingular",
    "Unproject": "zelStsErrSingular",
    "EigenValuesSym": "zelStsErrSingular zelStsErrNoConvergence",
    "EigenValuesVectorsSym": "zelStsErrSingular zelStsErrNoConvergence",
    "EigenValues": "zelStsErrNoConvergence",
    "EigenValuesVectors": "zelStsErrGeneric zelStsErrNoConvergence",
    "EigenValuesVectorsLeft": "zelStsErrGeneric zelStsErrNoConvergence",
    "EigenValuesVectorsRight": "zelStsErrGeneric zelStsErrNoConvergence",
}

# Results that the 32-bit and 64-bit builds need not agree on bit for bit:
# these take sinf and cosf from the C library, whose last bits are the C
# library's and differ between its 32-bit and 64-bit builds.
DIGEST_EXEMPT = {"RotationX", "RotationY", "RotationZ", "RotationAxis", "RotationYawPitchRoll",
                 "PerspectiveFovLH", "PerspectiveFovRH"}
