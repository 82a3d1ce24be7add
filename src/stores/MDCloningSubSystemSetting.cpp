// MDCloningSubSystemSetting: binds the one-key store operations to the file of cloning subsystem settings.
//
// The rule: the operations of the family are compiled here for this store, and only here.
#include "zonmdfile/MDCloningSubSystemSetting.h"

#include "platform/trace_points.h"
#include "stores/one_key_store_impl.h"

static_assert(MDCloningSubSystemSetting::TRACE_BASE == zon::trace::MD_CLONING_SUB_SYSTEM_SETTING);

const char* const MDCloningSubSystemSetting::FILENAME = "zoncloningsubsyssetting";

template class OneKeyStore<MDCloningSubSystemSetting>;
