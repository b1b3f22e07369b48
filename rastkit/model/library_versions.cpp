#include "rastkit/formats.h"

namespace QUtils {

// One row per codec library. The formats of this build need none.
void rastkit_getImageLibVersions(Table<CharStringPair, 100>& rows)
{
    rows.clear();
}

} // namespace QUtils
