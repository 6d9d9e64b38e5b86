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

[[noreturn]] void report(const ErrorSite& site, const char* message, const char* detail)
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
        errfinish(site.file, site.line, site.function);
    }
    pg_unreachable();
}

}  // namespace

// The format is a site's message from the catalogue, not a literal the compiler could check here.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wsuggest-attribute=format"
#endif
void raiseFormatted(const ErrorSite& site, const char* format, ...)
{
    char message[512];
    if (format)
    {
        va_list args;
        va_start(args, format);
        vsnprintf(message, sizeof message, format, args);
        va_end(args);
    }
    report(site, format ? message : nullptr, nullptr);
}
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

void raiseWithDetail(const ErrorSite& site, const char* detailFormat, ...)
{
    char detail[512];
    va_list args;
    va_start(args, detailFormat);
    vsnprintf(detail, sizeof detail, detailFormat, args);
    va_end(args);
    report(site, site.message, detail);
}


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

ArrayType* rangesToArray(const pgRangeArray::Range<int>* first, size_t count)
{
    ArrayType* result = allocateInt4ArrayForOverwrite(2 * count);
    zm::copyInterruptibly<ServerInterruptCheck>(int4Data(result), first, count * sizeof(pgRangeArray::Range<int>));
    return result;
}

ArrayType* valuesToArray(const int32_t* first, size_t count)
{
    ArrayType* result = allocateInt4ArrayForOverwrite(count);
    zm::copyInterruptibly<ServerInterruptCheck>(int4Data(result), first, count * sizeof(int32_t));
    return result;
}

}  // namespace pg
}  // namespace zm
