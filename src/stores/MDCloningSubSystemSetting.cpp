// MDCloningSubSystemSetting: binds the one-key store operations to the file of cloning subsystem settings.
//
// The rule: the operations of the family are compiled here for this store, and only here.
#include "zonmdfile/MDCloningSubSystemSetting.h"

#include "stores/one_key_store_impl.h"

const char* const MDCloningSubSystemSetting::FILENAME = "zoncloningsubsyssetting";

template <>
inline constexpr const char* zon::NAME<MDCloningSubSystemSetting> = "MDCloningSubSystemSetting";

template class OneKeyStore<MDCloningSubSystemSetting>;
