// DumpMemory.h: memory of a process that does not exist, and a dump that stays in memory.
#pragma once

#include <cstring>
#include <map>
#include <string>

#include "crash/MinidumpWriter.h"
#include "crash/ProcessSnapshot.h"

namespace VelTest {

/// Memory made of ranges, by their first address.
class CFakeMemory final : public VelCore::CProcessMemory
{
public:
    std::map<std::uint64_t, std::string> ranges;

    std::size_t Read(std::uint64_t address, void* to, std::size_t size) const override
    {
        auto range = ranges.upper_bound(address);
        if (range == ranges.begin())
            return 0;
        --range;
        const std::uint64_t offset = address - range->first;
        if (offset >= range->second.size())
            return 0;
        const std::size_t length = std::min<std::size_t>(size, range->second.size() - offset);
        std::memcpy(to, range->second.data() + offset, length);
        return length;
    }
};

/// A dump as a string; takes no more than `capacity` bytes.
class CDumpText final : public VelCore::CDumpSink
{
public:
    std::string bytes;
    std::size_t capacity = std::size_t{1} << 30;

    bool Write(std::uint64_t offset, const void* data, std::size_t size) override
    {
        if (offset + size > capacity)
            return false;
        if (bytes.size() < offset + size)
            bytes.resize(offset + size);
        std::memcpy(bytes.data() + offset, data, size);
        return true;
    }
    bool SetSize(std::uint64_t size) override
    {
        bytes.resize(size);
        return true;
    }
};

} // namespace VelTest
