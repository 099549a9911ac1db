// The program's loaded objects, for turning the addresses of a finished
// run into functions: read from /proc/self/maps and the ELF headers in
// memory when sampling is armed, before a dlclose that follows a load, and
// again when the results are written. Writing the list is async-signal-safe:
// the end may come in a fatal signal's handler.
//
// "PATH.modules", one object a line after a heading line:
//   LOAD_ADDRESS BUILD_ID STATE PATH
// LOAD_ADDRESS in hex (where offset 0 of the file is mapped), BUILD_ID in
// hex or "-", STATE "loaded" (there at both times), "added" (loaded during
// the run), "removed" (unloaded during the run) or "transient" (loaded and
// unloaded again during the run, seen at a dlclose).
#ifndef ZOR_SAMPLER_MODULES_H
#define ZOR_SAMPLER_MODULES_H

namespace zorsampler {

// The objects loaded now, kept for the end.
void recordModulesAtStart();

// In a Go program, makes the Go runtime's own exit write the samples first.
void hookGoExit();
// Writes "PATH.modules" for the objects at the start and now; false with
// errno set if it can't be written.
bool writeModulesFile(const char* path);

} // namespace zorsampler

#endif
