#include "qutils/raw/records.h"
#include "qutils/raw/pstream.h"

namespace QUtils {

PStream::~PStream() = default;
RegionChannelCallback::~RegionChannelCallback() = default;

int RegionChannelCallback::getKind()
{
    return 0;
}

QURegionData::~QURegionData() = default;

} // namespace QUtils
