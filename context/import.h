// What a wrapped import tells the plain import that it ends in.
#ifndef CONTEXT_IMPORT_H
#define CONTEXT_IMPORT_H

// True only while a wrapped import runs its final import. Per thread, so that a plain import on
// another thread is never taken for one.
extern thread_local bool g_wrappedKeyImport;

#endif  // CONTEXT_IMPORT_H
