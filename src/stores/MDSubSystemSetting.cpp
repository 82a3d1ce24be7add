// MDSubSystemSetting: binds the one-key store operations to the file of subsystem settings.
//
// The rule: the operations of the family are compiled here for this store, and only here.
#include "zonmdfile/MDSubSystemSetting.h"

#include "platform/trace_points.h"
#include "stores/one_key_store_impl.h"

static_assert(MDSubSystemSetting::TRACE_BASE == zon::trace::MD_SUB_SYSTEM_SETTING);

const char* const MDSubSystemSetting::FILENAME = "zonsubsystemsetting";

template class OneKeyStore<MDSubSystemSetting>;
