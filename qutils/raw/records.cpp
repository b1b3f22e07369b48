#include "qutils/raw/records.h"

namespace QUtils {

RegionChannelCallback::~RegionChannelCallback() = default;

int RegionChannelCallback::getKind()
{
    return 0;
}

QURegionData::~QURegionData() = default;

} // namespace QUtils
