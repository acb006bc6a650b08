// The ASP.NET settings of the sites, which the product's utility brings into line.
#pragma once

#include "relocation/vhosts/reconfigure.h"

class AspNetReconfigure final : public Reconfigure {
public:
    AspNetReconfigure();

private:
    void work(bool forward) override;
};
