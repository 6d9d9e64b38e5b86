// Module frame: magic block, load hooks, version, error reporting and the allocation helpers.
#include "zelmorraPgUtils.h"
#include "zelmorraPgVersion.h"

extern "C" {
#include "utils/builtins.h"
}

#include <cstdarg>

extern "C" {
PG_MODULE_MAGIC;

PGDLLEXPORT void _PG_init(void);
PGDLLEXPORT void _PG_fini(void);
void _PG_init(void) {}
void _PG_fini(void) {}

PG_FUNCTION_INFO_V1(kestrava_range_operators_version);
}

extern "C" Datum kestrava_range_operators_version(PG_FUNCTION_ARGS)
{
    PG_RETURN_TEXT_P(cstring_to_text(KestravaPgRangeOperators3_0::Version::GetDescStringMajorMinorReleaseRevisionDate()));
}

namespace zm {
namespace pg {

namespace {

void report(const ErrorSite& site, const char* message, const char* detail, const char* hint)
{
    if (message == nullptr && detail == nullptr && site.sqlstate == outOfMemory)
        detail = "out of memory";
    if (errstart(ERROR, TEXTDOMAIN))
    {
        errcode(site.sqlstate);
        // A report without text still carries an empty message: PL/pgSQL exception handlers read
        // the message unconditionally and crash on a missing one.
        errmsg_internal("%s", message ? message : "");
        if (detail)
            errdetail_internal("%s", detail);
        if (hint)
            errhint("%s", hint);
        errfinish(site.file, site.line, site.function);
    }
    pg_unreachable();
}

}  // namespace

void raise(const ErrorSite& site, ...)
{
    char message[512];
    if (site.message)
    {
        va_list args;
        va_start(args, site);
        vsnprintf(message, sizeof message, site.message, args);
        va_end(args);
    }
    report(site, site.message ? message : nullptr, nullptr, nullptr);
}

void raiseWithDetail(const ErrorSite& site, const char* detailFormat, ...)
{
    char detail[512];
    va_list args;
    va_start(args, detailFormat);
    vsnprintf(detail, sizeof detail, detailFormat, args);
    va_end(args);
    report(site, site.message, detail, nullptr);
}

void raiseWithHint(const ErrorSite& site, const char* detail, const char* hint) { report(site, site.message, detail, hint); }

void raiseOutOfMemory(const ErrorSite& site, size_t requestedBytes)
{
    raiseWithDetail(site, "out of memory: %zu bytes requested; the server allocates at most %zu in one piece.",
                    requestedBytes, static_cast<size_t>(MaxAllocSize));
}

void writeDiagnosticLine(const char* line)
{
    fputs(line, stdout);
    fputc('\n', stdout);
    fflush(stdout);
}

void PallocAllocator::outOfMemory() { raise(site::vectorOutOfMemory); }

bytea* allocateBytea(size_t size)
{
    const size_t total = size + VARHDRSZ;
    void* block = total <= MaxAllocSize ? palloc_extended(total, MCXT_ALLOC_NO_OOM) : nullptr;
    if (block == nullptr)
        raiseOutOfMemory(site::allocateBytea, total);
    bytea* result = static_cast<bytea*>(block);
    SET_VARSIZE(result, total);
    return result;
}

MemoryContext aggregateContext(FunctionCallInfo fcinfo, const char* function)
{
    MemoryContext context = nullptr;
    if (!AggCheckCallContext(fcinfo, &context) || context == nullptr)
        raise(site::nonAggregateContext, function);
    return context;
}

MemoryContext createStateContext(MemoryContext aggregateContext, const char* name)
{
    return AllocSetContextCreateInternal(aggregateContext, name, ALLOCSET_DEFAULT_SIZES);
}

void copyInterruptibly(void* to, const void* from, size_t bytes)
{
    constexpr size_t slice = size_t{1} << 20;
    char* t = static_cast<char*>(to);
    const char* f = static_cast<const char*>(from);
    while (bytes > slice)
    {
        memcpy(t, f, slice);
        t += slice;
        f += slice;
        bytes -= slice;
        CHECK_FOR_INTERRUPTS();
    }
    if (bytes)
        memcpy(t, f, bytes);
}

ArrayType* rangesToArray(const pgRangeArray::Range<int>* first, size_t count)
{
    ArrayType* result = allocateInt4ArrayForOverwrite(2 * count);
    copyInterruptibly(int4Data(result), first, count * sizeof(pgRangeArray::Range<int>));
    return result;
}

ArrayType* valuesToArray(const int32_t* first, size_t count)
{
    ArrayType* result = allocateInt4ArrayForOverwrite(count);
    copyInterruptibly(int4Data(result), first, count * sizeof(int32_t));
    return result;
}

}  // namespace pg
}  // namespace zm
