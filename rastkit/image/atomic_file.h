#pragma once

#include "rastkit/export.h"

#include <string>
#include <system_error>

namespace QUtils {

/// Writes a file so that whoever looks at it sees the old one or the complete new one. The new one is
/// written beside the target under a name of its own, which has the target's extension and is removed
/// unless `commit` is called; `commit` puts it in the target's place.
///
/// The new file has the permissions (and, where the system lets us, the owner) of the one that it replaces,
/// else those of any new file. A symbolic link stays: what it points to is replaced. Other hard links keep
/// the old contents. A target that is no regular file (a device, a pipe) is written in place.
///
/// Exported for the programs of this project; the header is not installed.
class RASTKIT_API AtomicFile {
public:
    /// Whether `commit` waits until the system says that all is on the disk, for safety from power cuts.
    enum class Sync { No, Yes };

    AtomicFile() = default;
    AtomicFile(const AtomicFile&) = delete;
    AtomicFile& operator=(const AtomicFile&) = delete;
    ~AtomicFile();

    /// Makes the empty new file. Called once. Fails with the system's reason: the folder is missing or not
    /// writable, the target is a folder, or it may not be written to.
    std::error_code begin(const char* target);

    /// The file to write to, and to close before `commit`.
    const std::string& name() const { return m_name; }
    /// Whether `name` is a file of our own, to be removed when the program is interrupted.
    bool isTemporary() const { return !m_target.empty(); }

    /// Puts the new file in the target's place. On failure the target is as it was, unless only the folder
    /// could not be synced: the new file is there then, but a power cut may take it back.
    std::error_code commit(Sync sync);

private:
    std::string m_name;
    std::string m_target; // What `m_name` will replace; empty when there is no temporary file.
};

} // namespace QUtils
