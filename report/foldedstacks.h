// Folded stacks, the input of flame-graph tools: one line per distinct call
// path, "root;frame;...;leaf N", root first, where N is the CPU time in
// microseconds that all threads of all ranks spent with that path on their
// stack's top. Frames are function names; an inlined function has a frame
// of its own.
#ifndef ZOR_REPORT_FOLDEDSTACKS_H
#define ZOR_REPORT_FOLDEDSTACKS_H

#include <QByteArray>

class Profile;

QByteArray foldedStacks(const Profile& profile);

#endif
