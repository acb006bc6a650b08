#include "tests/support/import_patch.h"

#include <cstring>
#include <initializer_list>
#include <stdexcept>
#include <string>

namespace {

void** findSlot(HMODULE module, const char* name) {
    auto* base =
        reinterpret_cast<std::uint8_t*>(module != nullptr ? module : ::GetModuleHandleW(nullptr));
    const auto* dos = reinterpret_cast<IMAGE_DOS_HEADER*>(base);
    const auto* nt = reinterpret_cast<IMAGE_NT_HEADERS*>(base + dos->e_lfanew);
    const DWORD imports =
        nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT].VirtualAddress;
    auto* table = reinterpret_cast<IMAGE_IMPORT_DESCRIPTOR*>(base + imports);
    for (; imports != 0 && table->Name != 0; ++table) {
        auto* names = reinterpret_cast<IMAGE_THUNK_DATA*>(base + table->OriginalFirstThunk);
        auto** slot = reinterpret_cast<void**>(base + table->FirstThunk);
        for (; names->u1.AddressOfData != 0; ++names, ++slot) {
            if (IMAGE_SNAP_BY_ORDINAL(names->u1.Ordinal)) {
                continue;
            }
            const auto* entry =
                reinterpret_cast<IMAGE_IMPORT_BY_NAME*>(base + names->u1.AddressOfData);
            if (std::strcmp(reinterpret_cast<const char*>(entry->Name), name) == 0) {
                return slot;
            }
        }
    }
    throw std::runtime_error(std::string("not imported: ") + name);
}

// int decide(self) first; 0 jumps to the original with all its arguments in place, anything else
// returns *result. Written whole before the import points to it.
void* newThunk(void* self, const void* result, void* decide, void* original) {
    void* page = ::VirtualAlloc(nullptr, 4096, MEM_COMMIT | MEM_RESERVE, PAGE_EXECUTE_READWRITE);
    if (page == nullptr) {
        throw std::runtime_error("no memory for a fault point");
    }
    auto* next = static_cast<std::uint8_t*>(page);
    const auto bytes = [&](std::initializer_list<int> list) {
        for (const int b : list) {
            *next++ = static_cast<std::uint8_t>(b);
        }
    };
    const auto address = [&](const void* value) {
        std::memcpy(next, &value, sizeof value);
        next += sizeof value;
    };
    bytes({0x51, 0x52, 0x41, 0x50, 0x41, 0x51}); // push rcx, rdx, r8, r9
    bytes({0x48, 0x83, 0xEC, 0x28});             // sub rsp, 40
    bytes({0x48, 0xB9});                         // mov rcx, self
    address(self);
    bytes({0x48, 0xB8}); // mov rax, decide
    address(decide);
    bytes({0xFF, 0xD0, 0x48, 0x83, 0xC4, 0x28}); // call rax; add rsp, 40
    bytes({0x41, 0x59, 0x41, 0x58, 0x5A, 0x59}); // pop r9, r8, rdx, rcx
    bytes({0x85, 0xC0, 0x75, 0x0C});             // test eax, eax; jnz fail
    bytes({0x48, 0xB8});                         // mov rax, original
    address(original);
    bytes({0xFF, 0xE0}); // jmp rax
    bytes({0x48, 0xB8}); // fail: mov rax, result
    address(result);
    bytes({0x48, 0x8B, 0x00, 0xC3}); // mov rax, [rax]; ret
    return page;
}

} // namespace

ImportPatch::ImportPatch(HMODULE module, const char* name, void* replacement)
    : slot_(findSlot(module, name)), original_(*slot_) {
    write(replacement);
}

ImportPatch::~ImportPatch() {
    write(original_);
}

void ImportPatch::write(void* value) const {
    DWORD protection = 0;
    ::VirtualProtect(slot_, sizeof *slot_, PAGE_READWRITE, &protection);
    *slot_ = value;
    ::VirtualProtect(slot_, sizeof *slot_, protection, &protection);
}

FaultPoint::FaultPoint(const char* name, HMODULE module)
    : code_(newThunk(this, &result, reinterpret_cast<void*>(&FaultPoint::decide),
                     *findSlot(module, name))),
      patch_(module, name, code_) {}

int FaultPoint::decide(FaultPoint* self) noexcept {
    const long call = self->calls++;
    const long at = self->failAt;
    if (at < 0 || call < at || (call > at && !self->failOnwards)) {
        return 0;
    }
    ::SetLastError(self->code);
    return 1;
}
