#include "dns/mx_server.h"

#include <limits>

#include "log/fault.h"

namespace postiq {

const MXRecord& CMXServer::record(int index) const
{
    if (index < 0 || index >= records_.size()) {
        throw Fault(ErrOutOfRange, QStringLiteral("Mail host index %1 outside 0..%2")
                                       .arg(index)
                                       .arg(records_.size() - 1));
    }
    return records_[index];
}

MXRecord& CMXServer::record(int index)
{
    return const_cast<MXRecord&>(std::as_const(*this).record(index));
}

int16_t CMXServer::Order(int index) const { return record(index).Order; }
void CMXServer::setOrder(int index, int16_t value) { record(index).Order = value; }
QByteArray CMXServer::Host(int index) const { return record(index).Host; }
void CMXServer::setHost(int index, const QByteArray& value) { record(index).Host = value; }
QByteArray CMXServer::IP(int index) const { return record(index).IP; }
void CMXServer::setIP(int index, const QByteArray& value) { record(index).IP = value; }
double CMXServer::TTL(int index) const { return record(index).TTL; }
void CMXServer::setTTL(int index, double value) { record(index).TTL = value; }

void CMXServer::Add(int16_t order, const QByteArray& host, const QByteArray& ip, double ttl)
{
    // Count() is a 16-bit number: one more host would not fit it.
    if (Count() == std::numeric_limits<int16_t>::max())
        throw Fault(ErrOverflow, QStringLiteral("Too many mail hosts in one list"));
    records_.append(MXRecord{order, host, ip, ttl});
}

int16_t CMXServer::Count() const { return static_cast<int16_t>(records_.size() - 1); }

void CMXServer::Clear() { records_ = {MXRecord{}}; }

} // namespace postiq
