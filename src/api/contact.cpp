// The entry points of the contact store.
//
// The rule: as the one-key entry points; only a removal that succeeds does more, it also withdraws the contact from its
// groups.
#include "api/MDRegFactory.h"
#include "api/group_cascade.h"
#include "api/one_key_slots.h"
#include "zonmdfile/MDContact.h"

using namespace zon;
using namespace zon::one_key;

MD_ENTRY MDContact_retrieveKeys(void*, void** block, struct sqlca* sqlca) {
  callStore<MDContact, &MDContact::retrieveKeys, RETRIEVE_KEYS>(trace::point("MDContact_retrieveKeys"), block, sqlca);
}

MD_ENTRY MDContact_retrieveAll(void*, void** block, struct sqlca* sqlca) {
  callStore<MDContact, &MDContact::retrieveAll, RETRIEVE_ALL>(trace::point("MDContact_retrieveAll"), block, sqlca);
}

// The clean-up's code is the outcome, although the contact itself is gone by then.
MD_ENTRY MDContact_remove(void*, void** slots, struct sqlca* sqlca) {
  TraceScope trace(trace::point("MDContact_remove"));
  const ParameterBlock block(slots);
  std::uint32_t rc = callOperation<MDContact, &MDContact::remove, REMOVE>(block);
  if (rc == MD_RC_OK) rc = withdrawMember(block.text(0), MDContactGroup::CONTACT_KIND);
  report<MDContact, REMOVE>(trace, rc, block, sqlca);
}

MD_ENTRY MDContact_retrieve(void*, void** block, struct sqlca* sqlca) {
  callStore<MDContact, &MDContact::retrieve, RETRIEVE>(trace::point("MDContact_retrieve"), block, sqlca);
}

MD_ENTRY MDContact_update(void*, void** block, struct sqlca* sqlca) {
  callStore<MDContact, &MDContact::update, UPDATE>(trace::point("MDContact_update"), block, sqlca);
}

MD_ENTRY MDContact_insert(void*, void** block, struct sqlca* sqlca) {
  callStore<MDContact, &MDContact::insert, INSERT>(trace::point("MDContact_insert"), block, sqlca);
}
