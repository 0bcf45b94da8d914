// SPDX-License-Identifier: MIT
#include "sim/air/AttributeServer.h"

#include <algorithm>
#include <map>
#include <utility>

namespace vexasim::air
{

namespace
{

// The minimum that every device accepts, and the maximum of this one: an MTU exchange is answered but changes
// nothing.
constexpr std::uint16_t kMtu = 23;

constexpr std::uint16_t kPrimaryService = 0x2800;
constexpr std::uint16_t kSecondaryService = 0x2801;
constexpr std::uint16_t kNotifyBit = 0x0001;

// Set in the codes of packets that are never answered.
constexpr std::uint8_t kCommandFlag = 0x40;

namespace error
{
constexpr std::uint8_t kInvalidPdu = 0x04;
constexpr std::uint8_t kInvalidOffset = 0x07;
constexpr std::uint8_t kNotFound = 0x0a;
constexpr std::uint8_t kInvalidLength = 0x0d;
constexpr std::uint8_t kUnsupportedGroup = 0x10;
} // namespace error

Bytes cut(Bytes bytes, size_t size)
{
    bytes.resize(std::min(bytes.size(), size));
    return bytes;
}

bool isGroup(const Bytes& type)
{
    const Bytes longType = longUuid(type);
    return longType == longUuid(encode(kPrimaryService)) || longType == longUuid(encode(kSecondaryService));
}

} // namespace

enum class AttributeServer::Op : std::uint8_t {
    Error = 0x01,
    ExchangeMtuRequest = 0x02,
    ExchangeMtuResponse = 0x03,
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

AttributeServer::AttributeServer(Scheduler& scheduler, Context context)
    : mContext(std::move(context)), mTable(mContext.peripheral->services()), mDelayed(scheduler)
{
}

void AttributeServer::received(const Bytes& packet)
{
    static const std::map<Op, bool (*)(AttributeServer&, const Bytes&)> handlers = {
        {Op::ExchangeMtuRequest, callDecoded<&AttributeServer::exchangeMtu>},
        {Op::FindInformationRequest, callDecoded<&AttributeServer::findInformation>},
        {Op::FindByTypeValueRequest, callDecoded<&AttributeServer::findByTypeValue>},
        {Op::ReadByGroupTypeRequest, callDecoded<&AttributeServer::readByGroupType>},
        {Op::ReadByTypeRequest, callDecoded<&AttributeServer::readByType>},
        {Op::ReadRequest, callDecoded<&AttributeServer::read>},
        {Op::ReadBlobRequest, callDecoded<&AttributeServer::readBlob>},
        {Op::WriteRequest, callDecoded<&AttributeServer::write>},
        {Op::WriteCommand, callDecoded<&AttributeServer::writeCommand>},
        {Op::Indication, callDecoded<&AttributeServer::confirm>},
    };
    if (packet.empty() || mContext.peripheral->mute()) {
        return;
    }
    mRequest = packet.front();
    const auto op = static_cast<Op>(mRequest);
    const bool answered = (mRequest & kCommandFlag) == 0 && op != Op::Confirmation && op != Op::Notification;
    const auto found = handlers.find(op);
    const bool known = found != handlers.end();
    const bool fits = known && found->second(*this, Bytes(packet.begin() + 1, packet.end()));
    if (answered && !fits) {
        refuse(0, known ? error::kInvalidPdu : att::kRequestNotSupported);
    }
}

// The box is a server too, and may send indications unrequested. It would take an error response for the
// answer to its own request.
void AttributeServer::confirm(const Bytes& /*indication*/)
{
    respond(encode(Op::Confirmation));
}

void AttributeServer::notify(std::uint16_t valueHandle, const Bytes& value)
{
    respond(encode(Op::Notification, valueHandle, cut(value, kMtu - 3)));
}

// --- discovery ---

void AttributeServer::exchangeMtu(std::uint16_t /*mtu*/)
{
    respond(encode(Op::ExchangeMtuResponse, kMtu));
}

void AttributeServer::findInformation(std::uint16_t first, std::uint16_t last)
{
    constexpr std::uint8_t kShort = 1;
    constexpr std::uint8_t kLong = 2;
    if (!wellFormed(first, last)) {
        return;
    }
    std::vector<Bytes> entries;
    for (const Attribute* row : mTable.between(first, last)) {
        entries.push_back(encode(row->handle, row->type));
    }
    if (entries.empty()) {
        return refuse(first, error::kNotFound);
    }
    const bool shortUuids = entries.front().size() == sizeof(std::uint16_t) * 2;
    respondWith(encode(Op::FindInformationResponse, shortUuids ? kShort : kLong), entries);
}

void AttributeServer::findByTypeValue(std::uint16_t first, std::uint16_t last, std::uint16_t type,
                                      const Bytes& value)
{
    if (!wellFormed(first, last)) {
        return;
    }
    Bytes response = encode(Op::FindByTypeValueResponse);
    for (const Attribute* row : mTable.ofType(first, last, encode(type))) {
        const bool wanted = longUuid(row->value) == longUuid(value);
        if (wanted && response.size() + 4 <= kMtu) {
            response = response + encode(row->handle, row->groupEnd);
        }
    }
    if (response.size() == 1) {
        return refuse(first, error::kNotFound);
    }
    respond(response);
}

void AttributeServer::readByGroupType(std::uint16_t first, std::uint16_t last, const Bytes& type)
{
    if (!wellFormed(first, last)) {
        return;
    }
    if (!isGroup(type)) {
        return refuse(first, error::kUnsupportedGroup);
    }
    std::vector<Bytes> entries;
    for (const Attribute* row : mTable.ofType(first, last, type)) {
        entries.push_back(encode(row->handle, row->groupEnd, row->value));
    }
    sendEntries(Op::ReadByGroupTypeResponse, entries, first);
}

void AttributeServer::readByType(std::uint16_t first, std::uint16_t last, const Bytes& type)
{
    if (!wellFormed(first, last)) {
        return;
    }
    const auto rows = mTable.ofType(first, last, type);
    if (rows.empty()) {
        return refuse(first, error::kNotFound);
    }
    if (rows.front()->kind == Attribute::Kind::Characteristic) {
        std::vector<Bytes> entries;
        entries.reserve(rows.size());
        for (const Attribute* row : rows) {
            entries.push_back(encode(row->handle, row->value));
        }
        return sendEntries(Op::ReadByTypeResponse, entries, first);
    }
    // One value per response; for more, the client sends further requests.
    const Attribute& row = *rows.front();
    fetch(row.handle, [this, handle = row.handle](const Bytes& value) {
        sendEntries(Op::ReadByTypeResponse, {encode(handle, cut(value, kMtu - 4))}, handle);
    });
}

void AttributeServer::sendEntries(Op response, const std::vector<Bytes>& entries, std::uint16_t asked)
{
    if (entries.empty()) {
        return refuse(asked, error::kNotFound);
    }
    respondWith(encode(response, static_cast<std::uint8_t>(entries.front().size())), entries);
}

// All entries of a response have the same size; the rest is left for the next request.
void AttributeServer::respondWith(Bytes packet, const std::vector<Bytes>& entries)
{
    for (const auto& entry : entries) {
        if (entry.size() != entries.front().size() || packet.size() + entry.size() > kMtu) {
            break;
        }
        packet = packet + entry;
    }
    respond(packet);
}

// --- values ---

void AttributeServer::read(std::uint16_t handle)
{
    fetch(handle, [this](const Bytes& value) { respond(encode(Op::ReadResponse, cut(value, kMtu - 1))); });
}

void AttributeServer::readBlob(std::uint16_t handle, std::uint16_t offset)
{
    fetch(handle, [this, handle, offset](const Bytes& value) {
        if (offset > value.size()) {
            return refuse(handle, error::kInvalidOffset);
        }
        const Bytes rest(value.begin() + offset, value.end());
        respond(encode(Op::ReadBlobResponse, cut(rest, kMtu - 1)));
    });
}

void AttributeServer::fetch(std::uint16_t handle, const Finish& finish)
{
    const Attribute* row = mTable.find(handle);
    if (row == nullptr) {
        return refuse(handle, att::kInvalidHandle);
    }
    if (row->declaration()) {
        return finish(row->value);
    }
    if (row->kind == Attribute::Kind::Configuration) {
        const bool on = mContext.peripheral->subscribed(row->valueHandle);
        return finish(encode(on ? kNotifyBit : std::uint16_t{0}));
    }
    if (row->readEncrypted && !mContext.encrypted()) {
        return refuse(handle, att::kInsufficientAuthentication);
    }
    const AttReply reply = mContext.peripheral->read(handle);
    if (reply.kind != AttReply::Kind::Answer) {
        return;
    }
    mDelayed.after(reply.delay, [this, handle, reply, finish, request = mRequest] {
        mRequest = request;
        return reply.error == att::kOk ? finish(reply.value) : refuse(handle, reply.error);
    });
}

void AttributeServer::write(std::uint16_t handle, const Bytes& value)
{
    const AttReply reply = store(handle, value, Peripheral::WriteKind::Request);
    if (reply.kind != AttReply::Kind::Answer) {
        return;
    }
    mDelayed.after(reply.delay, [this, handle, error = reply.error, code = mRequest] {
        mRequest = code;
        return error == att::kOk ? respond(encode(Op::WriteResponse)) : refuse(handle, error);
    });
}

void AttributeServer::writeCommand(std::uint16_t handle, const Bytes& value)
{
    store(handle, value, Peripheral::WriteKind::Command);
}

AttReply AttributeServer::store(std::uint16_t handle, const Bytes& value, Peripheral::WriteKind kind)
{
    const Attribute* row = mTable.find(handle);
    if (row == nullptr) {
        return AttReply::refused(att::kInvalidHandle);
    }
    if (row->declaration()) {
        return AttReply::refused(att::kWriteNotPermitted);
    }
    if (row->writeEncrypted && !mContext.encrypted()) {
        return AttReply::refused(att::kInsufficientAuthentication);
    }
    if (row->kind == Attribute::Kind::Configuration) {
        return configure(*row, value);
    }
    const AttReply reply = mContext.peripheral->write(handle, value, kind);
    if (reply.kind == AttReply::Kind::Answer && reply.error == att::kOk) {
        mContext.written(handle, value);
    }
    return reply;
}

AttReply AttributeServer::configure(const Attribute& row, const Bytes& value) const
{
    if (value.size() != sizeof(std::uint16_t)) {
        return AttReply::refused(error::kInvalidLength);
    }
    return mContext.peripheral->subscribe(row.valueHandle, (value.front() & kNotifyBit) != 0);
}

// A range of handles that is reversed or starts at zero is the client's error.
bool AttributeServer::wellFormed(std::uint16_t first, std::uint16_t last)
{
    if (first != 0 && first <= last) {
        return true;
    }
    refuse(first, att::kInvalidHandle);
    return false;
}

void AttributeServer::refuse(std::uint16_t about, std::uint8_t error)
{
    respond(encode(Op::Error, mRequest, about, error));
}

} // namespace vexasim::air
