// The notice board of failed allocations: fixed static storage, so that it works when no memory is
// left. No lock: threads that fail at the same time overwrite one another's texts.
//
// A "stack" only by name: each push writes from the first byte on. Its capacity is what the length
// of the push before leaves of the buffer, one more than the buffer after a cut (whose result is
// -1), and without end after a text of 4001 characters. That arithmetic is kept as it stands; the
// buffers own the byte beyond, and nothing is written behind that.
#include "KXMBasErrorStack.h"

#include <cstdio>

#include "diagnostics/shared_text.h"
#include "mem_Interface.h"
#include "platform/os.h"
#include "platform/relaxed_word.h"

bool KXMBasErrorStack::s_active = false;
bool KXMBasErrorStack::s_fatalException = false;
char KXMBasErrorStack::s_ErrorStack[text_capacity + 1] = {};
char KXMBasErrorStack::s_ErrorMessages[text_capacity + 1] = {};
std::int32_t KXMBasErrorStack::s_curr = 0;
std::int32_t KXMBasErrorStack::s_currentMessage = 0;
std::int32_t KXMBasErrorStack::s_memIndex = 0;
std::uint64_t KXMBasErrorStack::s_mem[mem_capacity] = {};
std::uint64_t KXMBasErrorStack::s_memLimit = 0;
char KXMBasErrorStack::s_indir[name_capacity] = {};
char KXMBasErrorStack::s_outdir[name_capacity] = {};
char KXMBasErrorStack::s_tmpdir[name_capacity] = {};
char KXMBasErrorStack::s_curdir[name_capacity] = {};
char KXMBasErrorStack::s_exepath[name_capacity] = {};
char KXMBasErrorStack::s_jobname[name_capacity] = {};

namespace {

using os::relaxed_read;
using os::relaxed_write;

// `last` is the result of the print before, and takes that of this one.
template <std::size_t size> void push(char (&buffer)[size], std::int32_t& last, const char* text) {
    constexpr std::int32_t nominal = size - 1;
    const std::int32_t capacity = nominal - relaxed_read(last);
    relaxed_write(last, shared_text::store(buffer, size, static_cast<std::size_t>(capacity), text));
    relaxed_write(buffer[nominal - 1], '\0');
}

template <std::size_t size> void set_name(char (&buffer)[size], const char* text) {
    shared_text::store(buffer, size, size, text);
    relaxed_write(buffer[size - 1], '\0');
}

} // namespace

void KXMBasErrorStack::Activate() {
    relaxed_write(s_active, true);
}

void KXMBasErrorStack::Deactivate() {
    relaxed_write(s_active, false);
}

bool KXMBasErrorStack::Active() {
    return relaxed_read(s_active);
}

void KXMBasErrorStack::Push(const char* text) {
    push(s_ErrorStack, s_curr, text);
    PushMem(mem_FootprintFromResources() / 1024);
}

void KXMBasErrorStack::PushMessage(const char* text) {
    push(s_ErrorMessages, s_currentMessage, text);
}

const char* KXMBasErrorStack::CStr() {
    return s_ErrorStack;
}

const char* KXMBasErrorStack::ErrorMessages() {
    return s_ErrorMessages;
}

int KXMBasErrorStack::Length() {
    return relaxed_read(s_curr);
}

void KXMBasErrorStack::PushMem(std::uint64_t value) {
    const std::int32_t index = relaxed_read(s_memIndex);
    relaxed_write(s_mem[index], value);
    if (index <= mem_capacity - 2) {
        relaxed_write(s_memIndex, index + 1);
    }
}

// Once the history is full the last slot is written again and again, and this goes on answering the
// one before it: kept so.
std::uint64_t KXMBasErrorStack::GetMem() {
    const std::int32_t index = relaxed_read(s_memIndex);
    return relaxed_read(s_mem[index > 0 ? index - 1 : 0]); // never above 3998
}

void KXMBasErrorStack::SetMemoryLimit(std::uint64_t limit) {
    relaxed_write(s_memLimit, limit);
}

std::uint64_t KXMBasErrorStack::GetMemoryLimit() {
    return relaxed_read(s_memLimit);
}

void KXMBasErrorStack::SetJobname(const char* text) {
    set_name(s_jobname, text);
}

const char* KXMBasErrorStack::Jobname() {
    return s_jobname;
}

void KXMBasErrorStack::SetIndir(const char* text) {
    set_name(s_indir, text);
}

const char* KXMBasErrorStack::Indir() {
    return s_indir;
}

void KXMBasErrorStack::SetOutdir(const char* text) {
    set_name(s_outdir, text);
}

const char* KXMBasErrorStack::Outdir() {
    return s_outdir;
}

void KXMBasErrorStack::SetTmpdir(const char* text) {
    set_name(s_tmpdir, text);
}

const char* KXMBasErrorStack::Tmpdir() {
    return s_tmpdir;
}

void KXMBasErrorStack::SetExePath(const char* text) {
    set_name(s_exepath, text);
}

const char* KXMBasErrorStack::ExePath() {
    return s_exepath;
}

const char* KXMBasErrorStack::Cwd() {
    os::current_directory(s_curdir, sizeof s_curdir); // a failure leaves it as it was
    return s_curdir;
}

void KXMBasErrorStack::SetFatalException(bool value) {
    relaxed_write(s_fatalException, value);
}

bool KXMBasErrorStack::FatalException() {
    return relaxed_read(s_fatalException);
}

void KXMBasErrorStack::SaveMarker(const char* text) {
    std::printf("## %s\n", text);
}

void KXMBasErrorStack::Context(KXMBasErrorContext::CategoryEnum category) {
    s_context.Category(category);
}

const char* KXMBasErrorStack::ContextAsString() {
    return s_context.AsString();
}

void KXMBasErrorStackReactivate() {
    KXMBasErrorStack::Activate();
}

void KXMBasErrorStackDeactivate() {
    KXMBasErrorStack::Deactivate();
}

void KXMBasErrorCategory(int category) {
    KXMBasErrorStack::Context(static_cast<KXMBasErrorContext::CategoryEnum>(category));
}
