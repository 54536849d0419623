// The end of the process where memory ends and nothing can be thrown, as in destructors of
// libraries: a sentence and an exit code in place of a signal.
#ifndef CORVANE_SERVICE_OPERATION_MEMORY_END_H
#define CORVANE_SERVICE_OPERATION_MEMORY_END_H

// For the whole process.
void endBySentenceWithoutMemory();

// A loop of this thread begins its next round: that memory ended in an earlier one explains
// nothing that happens from here on.
void forgetEndOfMemory();

#endif
