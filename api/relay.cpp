#include "api/relay.h"

#include "api/exception.h"
#include "runtime/cwrpexception.h"
#include "runtime/text.h"

#include <comdef.h>

namespace zopobsolete {

void rethrowAsNative(const vexception::CallStackInfo& frame) {
    try {
        throw;
    } catch (vexception& e) {
        e += frame;
        throw;
    } catch (const Exception& e) {
        throw vexception(e.message(), frame);
    } catch (const std::exception& e) {
        throw vexception(toWide(e.what()), frame);
    } catch (const _com_error& e) {
        const wchar_t* text = e.ErrorMessage();
        throw vexception(text != nullptr ? text : L"", frame);
    } catch (const cwrpexception& e) {
        throw vexception(e.get_ErrorMessage(), frame);
    } catch (...) {
        throw vexception(L"Unexpected error", frame);
    }
}

} // namespace zopobsolete
