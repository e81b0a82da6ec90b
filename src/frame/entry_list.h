// The exported functions, one VEKR_ENTRY per export, in ascending byte order of the names.
// This list defines the entry table, the export stubs and the declarations of the
// implementations; a compile-time check keeps it sorted. No include guard: it is an X-macro.
VEKR_ENTRY(vekrCastEye_32f)
VEKR_ENTRY(vekrGetLibVersion)
VEKR_ENTRY(vekrHitPoint3DEpsM0_32f_M)
VEKR_ENTRY(vekrHitPoint3DEpsS0_32f_M)
VEKR_ENTRY(vekrIntersectEyeSO_32f)
VEKR_ENTRY(vekrKDTreeBuildAlloc)
VEKR_ENTRY(vekrKDTreeFree)
VEKR_ENTRY(vekrSetBoundBox_32f)
VEKR_ENTRY(vekrSurfFlatNormal_32f)
VEKR_ENTRY(vekrSurfSmoothNormal_32f)
VEKR_ENTRY(vekrTriangleAccelGetSize)
VEKR_ENTRY(vekrTriangleAccelInit)
VEKR_ENTRY(vekrTriangleNormal_32f)
