/* Material colours, and the names of material sets for --mirror. */
#include "materials.h"

#include <stdio.h>
#include <string.h>

const float kMaterialColour[SceneMaterialCount][3] = {
    {0.70f, 0.62f, 0.52f}, /* loaded meshes: clay */
    {0.75f, 0.75f, 0.72f}, /* ground, light squares */
    {0.30f, 0.31f, 0.33f}, /* ground, dark squares */
    {0.80f, 0.12f, 0.10f}, /* sphere */
    {0.85f, 0.60f, 0.10f}, /* torus */
    {0.12f, 0.30f, 0.80f}, /* box */
    {0.15f, 0.60f, 0.20f}, /* cylinder */
    {0.55f, 0.20f, 0.70f}, /* cone */
    {0.10f, 0.65f, 0.65f}, /* bumpy sphere */
};

#define BIT(material) (1u << (material))

/* The names, in the order of the SceneMaterial numbers; the ground's two colours share one. */
static const struct {
    const char* name;
    MaterialSet set;
} kNamedSets[] = {
    {"mesh", BIT(SceneMaterialLoaded)},
    {"ground", BIT(SceneMaterialGroundLight) | BIT(SceneMaterialGroundDark)},
    {"sphere", BIT(SceneMaterialSphere)},
    {"torus", BIT(SceneMaterialTorus)},
    {"box", BIT(SceneMaterialBox)},
    {"cylinder", BIT(SceneMaterialCylinder)},
    {"cone", BIT(SceneMaterialCone)},
    {"bumpy", BIT(SceneMaterialBumpy)},
    {"all", BIT(SceneMaterialCount) - 1u},
};
enum { kNamedSetCount = sizeof kNamedSets / sizeof kNamedSets[0] };

int parseMaterialList(const char* text, MaterialSet* set, const char** bad)
{
    if (strcmp(text, "none") == 0) {
        *set = 0;
        return 0;
    }
    MaterialSet chosen = 0;
    for (const char* name = text;;) {
        const char* comma = strchr(name, ',');
        const size_t length = comma ? (size_t)(comma - name) : strlen(name);
        int found = 0;
        for (int s = 0; s < kNamedSetCount && !found; ++s)
            if (strlen(kNamedSets[s].name) == length &&
                strncmp(kNamedSets[s].name, name, length) == 0) {
                chosen |= kNamedSets[s].set;
                found = 1;
            }
        if (!found) {
            *bad = name;
            return -1;
        }
        if (comma == NULL) break;
        name = comma + 1;
    }
    *set = chosen;
    return 0;
}

void formatMaterialList(MaterialSet set, char* text, int size)
{
    int used = snprintf(text, (size_t)size, "%s", set == 0 ? "none" : "");
    if (set == kNamedSets[kNamedSetCount - 1].set) {
        snprintf(text, (size_t)size, "all");
        return;
    }
    for (int s = 0; s < kNamedSetCount - 1; ++s)
        if ((set & kNamedSets[s].set) == kNamedSets[s].set && used < size)
            used += snprintf(text + used, (size_t)(size - used), "%s%s", used > 0 ? "," : "",
                             kNamedSets[s].name);
}
