#include "tests/support/import_patch.h"

#include <cstring>
#include <initializer_list>
#include <stdexcept>
#include <string>

void forEachImport(HMODULE module, const ImportVisitor& visit) {
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
            if (!IMAGE_SNAP_BY_ORDINAL(names->u1.Ordinal)) {
                const auto* entry =
                    reinterpret_cast<IMAGE_IMPORT_BY_NAME*>(base + names->u1.AddressOfData);
                visit(reinterpret_cast<const char*>(base + table->Name),
                      reinterpret_cast<const char*>(entry->Name), slot);
            }
        }
    }
}

void* newImportThunk(void* self, ImportDecision decide, const void* result, void* const* original) {
    static std::uint8_t* next = nullptr;
    static std::size_t left = 0;
    constexpr std::size_t size = 96;
    if (left < size) {
        left = 65536;
        next = static_cast<std::uint8_t*>(
            ::VirtualAlloc(nullptr, left, MEM_COMMIT | MEM_RESERVE, PAGE_EXECUTE_READWRITE));
        if (next == nullptr) {
            throw std::runtime_error("no memory for thunks");
        }
    }
    std::uint8_t* const thunk = next;
    std::uint8_t* at = thunk;
    const auto bytes = [&](std::initializer_list<int> list) {
        for (const int b : list) {
            *at++ = static_cast<std::uint8_t>(b);
        }
    };
    const auto address = [&](const void* value) {
        std::memcpy(at, &value, sizeof value);
        at += sizeof value;
    };
    bytes({0x51, 0x52, 0x41, 0x50, 0x41, 0x51});       // push rcx, rdx, r8, r9
    bytes({0x48, 0x89, 0xE2, 0x48, 0x83, 0xEC, 0x28}); // mov rdx, rsp; sub rsp, 40
    bytes({0x48, 0xB9});                               // mov rcx, self
    address(self);
    bytes({0x48, 0xB8}); // mov rax, decide
    address(reinterpret_cast<void*>(decide));
    bytes({0xFF, 0xD0, 0x48, 0x83, 0xC4, 0x28}); // call rax; add rsp, 40
    bytes({0x41, 0x59, 0x41, 0x58, 0x5A, 0x59}); // pop r9, r8, rdx, rcx
    bytes({0x48, 0x85, 0xC0, 0x75, 0x10});       // test rax, rax; jnz fail
    bytes({0x49, 0xBB});                         // mov r11, original
    address(original);
    bytes({0x4D, 0x8B, 0x1B, 0x41, 0xFF, 0xE3}); // mov r11, [r11]; jmp r11
    bytes({0x48, 0xB8});                         // fail: mov rax, result
    address(result);
    bytes({0x48, 0x8B, 0x00, 0xC3}); // mov rax, [rax]; ret
    next += size;
    left -= size;
    return thunk;
}

namespace {

void** findSlot(HMODULE module, const char* wanted) {
    void** found = nullptr;
    forEachImport(module, [&](const char*, const char* name, void** slot) {
        found = found == nullptr && std::strcmp(name, wanted) == 0 ? slot : found;
    });
    if (found == nullptr) {
        throw std::runtime_error(std::string("not imported: ") + wanted);
    }
    return found;
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
    : original_(*findSlot(module, name)),
      patch_(module, name, newImportThunk(this, &FaultPoint::decide, &result, &original_)) {}

std::uintptr_t FaultPoint::decide(void* point, const std::uintptr_t*) noexcept {
    auto* self = static_cast<FaultPoint*>(point);
    const long call = self->calls++;
    const long at = self->failAt;
    if (at < 0 || call < at || (call > at && !self->failOnwards)) {
        return 0;
    }
    ::SetLastError(self->code);
    return 1;
}
