/* Owner of a record list returned by QM_DAT_getobjdata (C++ callers only):
 * the list is released with QM_DAT_freedata when the owner goes. */
#pragma once

#include <memory>

#include "qm_config.h"
#include "quelm_owned.h"

namespace quelm {

inline void free_config_records(QM_DAT_record *records) noexcept { QM_DAT_freedata(&records); }

using ConfigRecords = std::unique_ptr<QM_DAT_record, CDeleter<free_config_records>>;

}  // namespace quelm
