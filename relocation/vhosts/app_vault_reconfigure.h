// The applications of the sites. No product of today has any to reconfigure: whoever has derives a
// class from this one.
#pragma once

#include "relocation/vhosts/reconfigure.h"

class AppVaultReconfigure : public Reconfigure {
protected:
    AppVaultReconfigure()
        : Reconfigure({"AppVaultReconfigure::reconfigure", L"Reconfigure Site Applications",
                       L"Failed to reconfigure site applications: "}) {}
};
