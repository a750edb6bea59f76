/* Symbol visibility of the executable's C interface. Everything is hidden by
 * default; functions that plugins call are marked QM_EXPORT. */
#ifndef QM_EXPORT_H
#define QM_EXPORT_H

#define QM_EXPORT __attribute__((visibility("default")))

#endif
