// SPDX-License-Identifier: MIT
#include "sim/air/AttributeServer.h"

#include <algorithm>
#include <utility>

namespace vexasim::air
{

namespace
{

// What every device takes at least, and this one at most: an exchange of sizes
// is answered and changes nothing.
constexpr uint16_t kPacketSize = 23;

constexpr uint16_t kPrimaryService = 0x2800;
constexpr uint16_t kSecondaryService = 0x2801;
constexpr uint16_t kNotifyBit = 0x0001;

enum class Op : uint8_t {
    Error = 0x01,
    ExchangeSizesRequest = 0x02,
    ExchangeSizesResponse = 0x03,
    FindInformationRequest = 0x04,
    FindInformationResponse = 0x05,
    FindByTypeValueRequest = 0x06,
    FindByTypeValueResponse = 0x07,
    ReadByTypeRequest = 0x08,
    ReadByTypeResponse = 0x09,
    ReadRequest = 0x0a,
    ReadResponse = 0x0b,
    ReadBlobRequest = 0x0c,
    ReadBlobResponse = 0x0d,
    ReadByGroupTypeRequest = 0x10,
    ReadByGroupTypeResponse = 0x11,
    WriteRequest = 0x12,
    WriteResponse = 0x13,
    Notification = 0x1b,
    Indication = 0x1d,
    Confirmation = 0x1e,
    WriteCommand = 0x52,
};

// Set in the codes of packets that are never answered.
constexpr uint8_t kCommandFlag = 0x40;

namespace error
{
constexpr uint8_t kInvalidPacket = 0x04;
constexpr uint8_t kInvalidOffset = 0x07;
constexpr uint8_t kNotFound = 0x0a;
constexpr uint8_t kInvalidLength = 0x0d;
constexpr uint8_t kUnsupportedGroup = 0x10;
} // namespace error

struct ErrorResponse {
    Op op = Op::Error;
    uint8_t request = 0;
    uint16_t handle = 0;
    uint8_t error = 0;
    template <class Fields>
    void fields(Fields& f)
    {
        f(op, request, handle, error);
    }
};

struct SizeExchange {
    Op op{};
    uint16_t size = 0;
    template <class Fields>
    void fields(Fields& f)
    {
        f(op, size);
    }
};

struct RangeRequest {
    Op op{};
    uint16_t first = 0;
    uint16_t last = 0;
    Bytes type; ///< a UUID; absent in a request for information
    template <class Fields>
    void fields(Fields& f)
    {
        f(op, first, last, type);
    }
};

struct TypeValueRequest {
    Op op{};
    uint16_t first = 0;
    uint16_t last = 0;
    uint16_t type = 0;
    Bytes value;
    template <class Fields>
    void fields(Fields& f)
    {
        f(op, first, last, type, value);
    }
};

struct HandleRequest {
    Op op{};
    uint16_t handle = 0;
    template <class Fields>
    void fields(Fields& f)
    {
        f(op, handle);
    }
};

struct BlobRequest {
    Op op{};
    uint16_t handle = 0;
    uint16_t offset = 0;
    template <class Fields>
    void fields(Fields& f)
    {
        f(op, handle, offset);
    }
};

/// A write in either direction: request, command or notification.
struct HandleValue {
    Op op{};
    uint16_t handle = 0;
    Bytes value;
    template <class Fields>
    void fields(Fields& f)
    {
        f(op, handle, value);
    }
};

/// A response that is nothing but its code and a value.
struct ValueResponse {
    Op op{};
    Bytes value;
    template <class Fields>
    void fields(Fields& f)
    {
        f(op, value);
    }
};

template <class... Field>
Bytes join(const Field&... fields)
{
    Encoder encoder;
    encoder(fields...);
    return encoder.take();
}

Bytes cut(Bytes bytes, size_t size)
{
    bytes.resize(std::min(bytes.size(), size));
    return bytes;
}

bool isGroup(const Bytes& type)
{
    const Bytes longType = longUuid(type);
    return longType == longUuid(join(kPrimaryService)) || longType == longUuid(join(kSecondaryService));
}

} // namespace

AttributeServer::AttributeServer(Clock& clock, Surroundings surroundings)
    : mSurroundings(std::move(surroundings)), mTable(mSurroundings.peripheral->services()), mDelayed(clock)
{
}

void AttributeServer::received(const Bytes& packet)
{
    using Handler = void (AttributeServer::*)(const Bytes&);
    static const std::vector<std::pair<Op, Handler>> handlers = {
        {Op::ExchangeSizesRequest, &AttributeServer::exchangeSizes},
        {Op::FindInformationRequest, &AttributeServer::findInformation},
        {Op::FindByTypeValueRequest, &AttributeServer::findByTypeValue},
        {Op::ReadByGroupTypeRequest, &AttributeServer::readByGroupType},
        {Op::ReadByTypeRequest, &AttributeServer::readByType},
        {Op::ReadRequest, &AttributeServer::read},
        {Op::ReadBlobRequest, &AttributeServer::readBlob},
        {Op::WriteRequest, &AttributeServer::write},
        {Op::WriteCommand, &AttributeServer::writeCommand},
        {Op::Indication, &AttributeServer::confirm},
    };
    if (packet.empty() || mSurroundings.peripheral->mute())
        return;
    mRequest = packet.front();
    const auto found = std::find_if(handlers.begin(), handlers.end(), [&](const auto& entry) {
        return static_cast<uint8_t>(entry.first) == mRequest;
    });
    if (found != handlers.end())
        return (this->*found->second)(packet);
    const bool answered = (mRequest & kCommandFlag) == 0 &&
                          mRequest != static_cast<uint8_t>(Op::Confirmation) &&
                          mRequest != static_cast<uint8_t>(Op::Notification);
    if (answered)
        refuse(0, att::kRequestNotSupported);
}

// The box is a server, too, and may indicate unasked. It takes an error for the answer to its own request.
void AttributeServer::confirm(const Bytes& /*packet*/)
{
    respond({static_cast<uint8_t>(Op::Confirmation)});
}

void AttributeServer::notify(uint16_t valueHandle, const Bytes& value)
{
    respond(encode(HandleValue{Op::Notification, valueHandle, cut(value, kPacketSize - 3)}));
}

// ---- discovery

void AttributeServer::exchangeSizes(const Bytes& packet)
{
    const auto request = decode<SizeExchange>(packet);
    if (!request)
        return refuse(0, error::kInvalidPacket);
    respond(encode(SizeExchange{Op::ExchangeSizesResponse, kPacketSize}));
}

void AttributeServer::findInformation(const Bytes& packet)
{
    constexpr uint8_t kShort = 1;
    constexpr uint8_t kLong = 2;
    const auto request = decode<RangeRequest>(packet);
    if (!request || !request->type.empty())
        return refuse(0, error::kInvalidPacket);
    if (!wellFormed(request->first, request->last))
        return;
    std::vector<Bytes> entries;
    for (const Attribute* row : mTable.between(request->first, request->last))
        entries.push_back(join(row->handle, row->type));
    if (entries.empty())
        return refuse(request->first, error::kNotFound);
    // Entries of one response have one size; the rest is for the next request.
    Bytes response = join(Op::FindInformationResponse, entries.front().size() == 4 ? kShort : kLong);
    for (const auto& entry : entries) {
        if (entry.size() != entries.front().size() || response.size() + entry.size() > kPacketSize)
            break;
        response = response + entry;
    }
    respond(response);
}

void AttributeServer::findByTypeValue(const Bytes& packet)
{
    const auto request = decode<TypeValueRequest>(packet);
    if (!request)
        return refuse(0, error::kInvalidPacket);
    if (!wellFormed(request->first, request->last))
        return;
    Bytes response = join(Op::FindByTypeValueResponse);
    for (const Attribute* row : mTable.ofType(request->first, request->last, join(request->type))) {
        const bool wanted = longUuid(row->value) == longUuid(request->value);
        if (wanted && response.size() + 4 <= kPacketSize)
            response = response + join(row->handle, row->groupEnd);
    }
    if (response.size() == 1)
        return refuse(request->first, error::kNotFound);
    respond(response);
}

void AttributeServer::readByGroupType(const Bytes& packet)
{
    const auto request = decode<RangeRequest>(packet);
    if (!request)
        return refuse(0, error::kInvalidPacket);
    if (!wellFormed(request->first, request->last))
        return;
    if (!isGroup(request->type))
        return refuse(request->first, error::kUnsupportedGroup);
    std::vector<Bytes> entries;
    for (const Attribute* row : mTable.ofType(request->first, request->last, request->type))
        entries.push_back(join(row->handle, row->groupEnd, row->value));
    sendLists(static_cast<uint8_t>(Op::ReadByGroupTypeResponse), entries, request->first);
}

void AttributeServer::readByType(const Bytes& packet)
{
    const auto request = decode<RangeRequest>(packet);
    if (!request)
        return refuse(0, error::kInvalidPacket);
    if (!wellFormed(request->first, request->last))
        return;
    const auto rows = mTable.ofType(request->first, request->last, request->type);
    if (rows.empty())
        return refuse(request->first, error::kNotFound);
    if (rows.front()->kind == Attribute::Kind::Characteristic) {
        std::vector<Bytes> entries;
        entries.reserve(rows.size());
        for (const Attribute* row : rows)
            entries.push_back(join(row->handle, row->value));
        return sendLists(static_cast<uint8_t>(Op::ReadByTypeResponse), entries, request->first);
    }
    // Values one at a time: whoever wants more asks on.
    const Attribute& row = *rows.front();
    fetch(row, [this, handle = row.handle](const Bytes& value) {
        sendLists(static_cast<uint8_t>(Op::ReadByTypeResponse), {join(handle, cut(value, kPacketSize - 4))},
                  handle);
    });
}

void AttributeServer::sendLists(uint8_t response, const std::vector<Bytes>& entries, uint16_t asked)
{
    if (entries.empty())
        return refuse(asked, error::kNotFound);
    const size_t size = entries.front().size();
    Bytes packet = join(response, static_cast<uint8_t>(size));
    for (const auto& entry : entries) {
        if (entry.size() != size || packet.size() + size > kPacketSize)
            break;
        packet = packet + entry;
    }
    respond(packet);
}

// ---- values

void AttributeServer::read(const Bytes& packet)
{
    const auto request = decode<HandleRequest>(packet);
    const Attribute* row = request ? mTable.find(request->handle) : nullptr;
    if (row == nullptr)
        return request ? refuse(request->handle, att::kInvalidHandle) : refuse(0, error::kInvalidPacket);
    fetch(*row, [this](const Bytes& value) {
        respond(encode(ValueResponse{Op::ReadResponse, cut(value, kPacketSize - 1)}));
    });
}

void AttributeServer::readBlob(const Bytes& packet)
{
    const auto request = decode<BlobRequest>(packet);
    const Attribute* row = request ? mTable.find(request->handle) : nullptr;
    if (row == nullptr)
        return request ? refuse(request->handle, att::kInvalidHandle) : refuse(0, error::kInvalidPacket);
    fetch(*row, [this, blob = *request](const Bytes& value) {
        if (blob.offset > value.size())
            return refuse(blob.handle, error::kInvalidOffset);
        const Bytes rest(value.begin() + blob.offset, value.end());
        respond(encode(ValueResponse{Op::ReadBlobResponse, cut(rest, kPacketSize - 1)}));
    });
}

void AttributeServer::fetch(const Attribute& row, const Finish& finish)
{
    const uint16_t handle = row.handle;
    if (row.kind == Attribute::Kind::Service || row.kind == Attribute::Kind::Characteristic)
        return finish(row.value);
    if (row.kind == Attribute::Kind::Configuration) {
        const bool on = mSurroundings.peripheral->subscribed(row.valueHandle);
        return finish(join(on ? kNotifyBit : uint16_t{0}));
    }
    if (row.readEncrypted && !mSurroundings.encrypted())
        return refuse(handle, att::kInsufficientAuthentication);
    const AttReply reply = mSurroundings.peripheral->read(handle);
    if (reply.kind != AttReply::Kind::Answer)
        return;
    mDelayed.after(reply.delay, [this, handle, reply, finish, request = mRequest] {
        mRequest = request;
        return reply.error == att::kOk ? finish(reply.value) : refuse(handle, reply.error);
    });
}

void AttributeServer::write(const Bytes& packet)
{
    const auto request = decode<HandleValue>(packet);
    const Attribute* row = request ? mTable.find(request->handle) : nullptr;
    if (row == nullptr)
        return request ? refuse(request->handle, att::kInvalidHandle) : refuse(0, error::kInvalidPacket);
    const AttReply reply = store(*row, request->value, Peripheral::WriteKind::Request);
    if (reply.kind != AttReply::Kind::Answer)
        return;
    mDelayed.after(reply.delay, [this, handle = request->handle, error = reply.error, code = mRequest] {
        mRequest = code;
        return error == att::kOk ? respond(join(Op::WriteResponse)) : refuse(handle, error);
    });
}

void AttributeServer::writeCommand(const Bytes& packet)
{
    const auto request = decode<HandleValue>(packet);
    const Attribute* row = request ? mTable.find(request->handle) : nullptr;
    if (row != nullptr)
        store(*row, request->value, Peripheral::WriteKind::Command);
}

AttReply AttributeServer::store(const Attribute& row, const Bytes& value, Peripheral::WriteKind kind)
{
    if (row.kind == Attribute::Kind::Service || row.kind == Attribute::Kind::Characteristic)
        return AttReply::refused(att::kWriteNotPermitted);
    if (row.writeEncrypted && !mSurroundings.encrypted())
        return AttReply::refused(att::kInsufficientAuthentication);
    if (row.kind == Attribute::Kind::Configuration)
        return configure(row, value);
    const AttReply reply = mSurroundings.peripheral->write(row.handle, value, kind);
    if (reply.kind == AttReply::Kind::Answer && reply.error == att::kOk)
        mSurroundings.written(row.handle, value);
    return reply;
}

AttReply AttributeServer::configure(const Attribute& row, const Bytes& value) const
{
    if (value.size() != sizeof(uint16_t))
        return AttReply::refused(error::kInvalidLength);
    return mSurroundings.peripheral->subscribe(row.valueHandle, (value.front() & kNotifyBit) != 0);
}

// A range of handles that runs backwards, or from zero, is the asker's mistake.
bool AttributeServer::wellFormed(uint16_t first, uint16_t last)
{
    if (first != 0 && first <= last)
        return true;
    refuse(first, att::kInvalidHandle);
    return false;
}

void AttributeServer::refuse(uint16_t about, uint8_t error)
{
    respond(encode(ErrorResponse{Op::Error, mRequest, about, error}));
}

} // namespace vexasim::air
