// The handles that "addr" gave a machine's scripts, kept until the machine is
// re-initialised or destroyed.
#pragma once

class QelVirtualMachine;

namespace qel {

// Forgets the "addr" handles given to `vm`; a handle no other machine holds is released.
void forgetDataHandles(const QelVirtualMachine* vm);

}  // namespace qel
