#include "relocation/vhosts/asp_net_reconfigure.h"

#include "runtime/files/path.h"
#include "runtime/process/product_utility.h"

AspNetReconfigure::AspNetReconfigure()
    : Reconfigure({"AspNetReconfigure::reconfigure", L"Reconfigure ASP.NET settings",
                   L"Failed to reconfigure ASP.NET settings: "}) {}

void AspNetReconfigure::work(bool) {
    RunTime::execUtil(L"relink_tool.exe", {L"--reconfigure-aspnet-settings",
                                           L"--old-path=" + RunTime::nicePath(get_fromPath())});
}
