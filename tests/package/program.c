#include <api/flat/zopnative.h>

#include <string.h>

int main(void) {
    zop_error* error = NULL;
    zop_text* name = zop_user_name_without_domain(L"DOMAIN\\user", &error);
    const int same = name != NULL && wcscmp(zop_text_data(name), L"user") == 0;
    zop_text_free(name);
    return same && zop_interface_version() >> 16 == ZOP_INTERFACE_VERSION >> 16 ? 0 : 1;
}
