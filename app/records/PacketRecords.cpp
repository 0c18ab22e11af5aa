// SPDX-License-Identifier: Apache-2.0
#include "app/records/PacketRecords.h"

#include "app/records/JSONLineWriter.h"

namespace sealscope {

void PacketRecords::append(std::string& text, const PacketRow& row)
{
    JSONLineWriter json(text);
    json.beginObject();
    json.member("number", row.number);
    json.member("time", row.time);
    json.member("source", endpoints_.text(row.source));
    json.member("destination", endpoints_.text(row.destination));
    for (const std::string& key : row.match.plugIn->keys) json.member(key, row.match.analyzer->value(key, row.payload));
    json.member("info", row.match.analyzer->protocolInfo(row.payload));
    json.endObject();
    text += '\n';
}

}  // namespace sealscope
