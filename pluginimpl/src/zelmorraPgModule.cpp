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

void raiseReport(int sqlstate, const char* file, int line, const char* function, const char* message, const char* detail,
                 const char* hint)
{
    if (message == nullptr && detail == nullptr && sqlstate == ZM_SQLSTATE_OUT_OF_MEMORY)
        detail = "out of memory";
    if (errstart(ERROR, TEXTDOMAIN))
    {
        errcode(sqlstate);
        // A report without text still carries an empty message: PL/pgSQL exception handlers read
        // the message unconditionally and crash on a missing one.
        errmsg_internal("%s", message ? message : "");
        if (detail)
            errdetail_internal("%s", detail);
        if (hint)
            errhint("%s", hint);
        errfinish(file, line, function);
    }
    pg_unreachable();
}

void raiseError(int sqlstate, const char* file, int line, const char* function, const char* format, ...)
{
    char message[512];
    if (format)
    {
        va_list args;
        va_start(args, format);
        vsnprintf(message, sizeof message, format, args);
        va_end(args);
    }
    raiseReport(sqlstate, file, line, function, format ? message : nullptr, nullptr, nullptr);
}

void raiseErrorWithDetail(int sqlstate, const char* file, int line, const char* function, const char* message,
                          const char* detailFormat, ...)
{
    char detail[512];
    va_list args;
    va_start(args, detailFormat);
    vsnprintf(detail, sizeof detail, detailFormat, args);
    va_end(args);
    raiseReport(sqlstate, file, line, function, message, detail, nullptr);
}

void raiseOutOfMemory(const char* file, int line, const char* function, size_t requestedBytes)
{
    raiseErrorWithDetail(ZM_SQLSTATE_OUT_OF_MEMORY, file, line, function, nullptr,
                         "out of memory: %zu bytes requested; the server allocates at most %zu in one piece.", requestedBytes,
                         static_cast<size_t>(MaxAllocSize));
}

void writeDiagnosticLine(const char* line)
{
    fputs(line, stdout);
    fputc('\n', stdout);
    fflush(stdout);
}

void PallocAllocator::outOfMemory()
{
    raiseError(ZM_SQLSTATE_OUT_OF_MEMORY, __FILE__, __LINE__, "tVector", nullptr);
}

bytea* allocateBytea(size_t size)
{
    const size_t total = size + VARHDRSZ;
    void* block = total <= MaxAllocSize ? palloc_extended(total, MCXT_ALLOC_NO_OOM) : nullptr;
    if (block == nullptr)
        raiseOutOfMemory("pluginimpl/inc/zelmorraPgUtils.h", 54, "allocateBytea", total);
    bytea* result = static_cast<bytea*>(block);
    SET_VARSIZE(result, total);
    return result;
}

MemoryContext aggregateContext(FunctionCallInfo fcinfo, const char* function)
{
    MemoryContext context = nullptr;
    if (!AggCheckCallContext(fcinfo, &context) || context == nullptr)
        raiseError(ZM_SQLSTATE_INVALID_PARAMETER, __FILE__, __LINE__, function, "%s called in non-aggregate context", function);
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
