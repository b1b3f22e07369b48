#pragma once

namespace QUtils {

/// Whose habits a codec core follows where the two differ. docs/conventions.md lists every difference.
enum class Conventions {
    /// The renderer's: what the functions of load.h and save.h have always done. Scenes depend on it,
    /// oddities included.
    Renderer,
    /// What the format's own standard says and every other program does.
    Standard,
};

} // namespace QUtils
