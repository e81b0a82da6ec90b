/* Compiled, never run: the public headers are valid strict C11. */
#include "vekcore.h"
#include "vekr.h"

int vekrHeadersCompileAsC11(void);
int vekrHeadersCompileAsC11(void)
{
    BoundBox box = {0, 0, 0, 1, 1, 1};
    KDTreeBuildParams params = {KDTreeBuildSimple, 0, 0.0f, 0, &box.minX};
    TriangleAccel rec = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    return (int)(sizeof(rec) + params.maxDepth) + (StatusOk == 0);
}
