// The operations of the table, in its order: X(name) for each. For code that does the same for all
// of them, as the module does to fill its table and the trace to replace it.
#pragma once

#define QZP_EACH_OPERATION(X) \
  X(qzpbufacquire)            \
  X(qzpbufadd)                \
  X(qzpbufremove)             \
  X(qzpbufreturn)             \
  X(qzpclose)                 \
  X(qzpfreememhandle)         \
  X(qzpgetmemhandle)          \
  X(qzpinfo)                  \
  X(qzpopen)                  \
  X(qzppsize)                 \
  X(qzpread)                  \
  X(qzpwrite)                 \
  X(qzpreadmany)              \
  X(qzptruncate)              \
  X(qzpsetfilename)           \
  X(qzppreopen)               \
  X(qzpdelete)                \
  X(qzpgetstatus)             \
  X(qzpflush)                 \
  X(qzpwritehdr)              \
  X(qzpreopen)
