#pragma once

namespace tool {

/// Lets the library use as many threads as this program may: RASTKIT_THREADS says so, else
/// SLURM_CPUS_PER_TASK, else the processors that the system leaves to us (affinity and the cgroup's quota).
/// One means that nothing runs beside the program's own thread.
void useThreads();

/// The same with a number that the user asks for, 1 and more; 0 for none.
void useThreads(int wanted);

/// What `useThreads` goes by; at least 1.
int countThreads();

} // namespace tool
