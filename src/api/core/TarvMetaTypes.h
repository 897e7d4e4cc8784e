#pragma once

// Registers every host type with Qt's meta-type system so that they may
// travel through queued connections. Runs by itself when the library is
// loaded; calling it again is harmless.
void tarvRegisterMetaTypes();
