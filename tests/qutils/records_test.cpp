#include "qutils/raw/records.h"

#include <gtest/gtest.h>

#include <cstddef>

namespace {

class MinimalChannel : public RegionChannelCallback {
public:
    const char* getName() override { return "depth"; }
    int getChannelId() override { return 5; }
    int getSampleType() override { return QUtils::RISAMPLE_FLOAT; }
    int getNumComponents() override { return 1; }
};

TEST(RawRecords, KindOfAChannelFollowsItsComponentsByDefault)
{
    EXPECT_EQ(MinimalChannel().getKind(), 0);
}

// Renderers fill one and hand it on as the other.
TEST(RawRecords, BothCamerasHaveOneForm)
{
    EXPECT_EQ(sizeof(CameraInfo), sizeof(RICameraInfo));
    EXPECT_EQ(offsetof(CameraInfo, transform), offsetof(RICameraInfo, transform));
    EXPECT_EQ(offsetof(CameraInfo, projection), offsetof(RICameraInfo, projection));
    EXPECT_EQ(offsetof(CameraInfo, fNumber), offsetof(RICameraInfo, fNumber));
    EXPECT_EQ(offsetof(CameraInfo, fNumber) - offsetof(CameraInfo, aperture), 8 * sizeof(float));
}

} // namespace
