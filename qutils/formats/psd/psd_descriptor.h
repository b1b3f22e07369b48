#pragma once

#include "qutils/formats/psd/psd_source.h"

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace QUtils {

/// The numbers and truths of a descriptor, the tree of named values by which newer features are stored:
/// wherever they stand in it, in their order, by their keys alone.
class PsdDescriptor {
public:
    /// Reads from the version in front of the descriptor on. False when it is damaged or has values of a kind
    /// that is not known; what stands before them is there all the same. Throws std::bad_alloc.
    bool read(PsdSource& source, std::uint64_t end);

    /// The first value of that key.
    bool find(const std::string& key, double& value) const;
    /// Whether any value of that key is not 0.
    bool hasTrue(const std::string& key) const;

private:
    bool readObject(PsdSource& source, std::uint64_t end, int depth);
    bool readItem(PsdSource& source, std::uint64_t end, const std::string& key, int depth);
    bool readList(PsdSource& source, std::uint64_t end, const std::string& key, int depth);
    void note(const std::string& key, double value);

    std::vector<std::pair<std::string, double>> m_values;
};

} // namespace QUtils
