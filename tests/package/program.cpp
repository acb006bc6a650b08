#include <api/data_location.h>
#include <api/exception.h>
#include <api/vhosts_security.h>
#include <api/virtual_hosts_location.h>

#include <api/zop.h>
#include <api/zop_mysql_database.h>

#include <string>

int main() {
    zopobsolete::DataLocation location;
    try {
        location.Change(L"C:\\absent", L"C:\\other");
    } catch (const zopobsolete::Exception& e) {
        return e.message().find(L"Unable to move (C:\\absent)") != std::wstring::npos ? 0 : 1;
    }
    return 2;
}
