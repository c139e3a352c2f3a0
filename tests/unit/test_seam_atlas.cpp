// Where the seam atlas puts every seam's rectangles (CPU only).
#include <gtest/gtest.h>

#include "blend/seam_atlas.h"

namespace {

using zqgfx_gpu_avs::AtlasRect;
using zqgfx_gpu_avs::SeamAtlasLayout;
using zqgfx_gpu_avs::SeamShape;

bool overlap(const AtlasRect& a, const AtlasRect& b)
{
    return a.x < b.x + b.w && b.x < a.x + a.w && a.y < b.y + b.h && b.y < a.y + a.h;
}

struct PackRow {
    const char* what;
    int seams, width, levels, limit;
    int level0Width, level0Height;  // the grid of level 0; 0 x 0 when refused
};

class SeamAtlasPacking : public ::testing::TestWithParam<PackRow> {};

// Every seam's sides, result and alpha cells lie inside their level, apart from each other, side
// B right below the grid of side A; a grid that would pass the limit wraps onto a new shelf.
TEST_P(SeamAtlasPacking, RectanglesStayApartAndInsideTheLimit)
{
    const PackRow& row = GetParam();
    std::vector<SeamShape> shapes;
    for (int s = 0; s < row.seams; ++s)
        shapes.push_back(SeamShape{s, row.levels, {row.width, row.width}, {240, 240}, row.width, 240});
    SeamAtlasLayout layout;
    std::string why;
    const bool planned = layout.plan(shapes, row.limit, &why);
    ASSERT_EQ(planned, row.level0Width > 0) << why;
    if (!planned) {
        EXPECT_NE(why.find("texture limit is " + std::to_string(row.limit)), std::string::npos) << why;
        return;
    }
    EXPECT_EQ(layout.gridWidth(0), row.level0Width);
    EXPECT_EQ(layout.gridHeight(0), row.level0Height);
    for (int l = 0; l < layout.levels(); ++l) {
        std::vector<AtlasRect> sides;
        for (int s = 0; s < row.seams; ++s) {
            const AtlasRect a = layout.sideRect(s, SeamAtlasLayout::sideA, l);
            const AtlasRect b = layout.sideRect(s, SeamAtlasLayout::sideB, l);
            EXPECT_EQ(b.y, a.y + layout.gridHeight(l));
            EXPECT_EQ(a.w, row.width >> l);
            EXPECT_TRUE(a.x + a.w <= layout.gridWidth(l) && b.y + b.h <= 2 * layout.gridHeight(l));
            const AtlasRect cell = layout.cellRect(s, l);
            EXPECT_TRUE(cell.x == a.x && cell.y == a.y && cell.w == a.w && cell.h == a.h);
            sides.push_back(a), sides.push_back(b);
        }
        for (size_t i = 0; i < sides.size(); ++i)
            for (size_t j = i + 1; j < sides.size(); ++j) EXPECT_FALSE(overlap(sides[i], sides[j])) << l;
    }
}

INSTANTIATE_TEST_SUITE_P(Rigs, SeamAtlasPacking,
                         ::testing::Values(PackRow{"OneShelf", 3, 256, 5, 16384, 768, 240},
                                           PackRow{"WrapsAtTheLimit", 4, 256, 3, 1000, 768, 480},
                                           PackRow{"TooHighForTheLimit", 4, 256, 3, 900, 0, 0}),
                         [](const ::testing::TestParamInfo<PackRow>& info) { return info.param.what; });

}  // namespace
