// What a wrapped import tells the plain import that it ends in.
#ifndef CONTEXT_IMPORT_H
#define CONTEXT_IMPORT_H

// WrappedImportScope marks the imports made on this thread while it lives as the final step of a
// wrapped import. Per thread, so that a plain import on another thread is never taken for one.
class WrappedImportScope {
 public:
  WrappedImportScope();
  ~WrappedImportScope();
  WrappedImportScope(const WrappedImportScope&) = delete;
  WrappedImportScope& operator=(const WrappedImportScope&) = delete;
};

#endif  // CONTEXT_IMPORT_H
