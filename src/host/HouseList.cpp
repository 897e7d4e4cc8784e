#include "HouseList.h"

#include "CMListRowsNode.h"
#include "TarvConnect.h"
#include "TarvNetwork.h"
#include "TarvValue.h"

HouseList::HouseList(CMListRowsNode* house, CMListRowsNode* members, const QString& ownId, QObject* parent)
    : QObject(parent), m_house(house), m_members(members), m_ownId(ownId)
{
    m_house->setLoading(m_members->isLoading());
    tarvConnect(m_members, &CMListRowsNode::rowChanged, this, &HouseList::on_members_rowChanged);
    tarvConnect(m_members, &CMListRowsNode::loadingChanged, this, &HouseList::on_members_loadingChanged);
}

TarvRoles HouseList::makeRow(const TarvSystemMember& record, const Discovery::House& house, const QString& apiAddress)
{
    QVariantList groupMembers;
    for (const QString& id : record.persistentGroupMembers())
        groupMembers.append(id);
    const QVariantHash savedGroup{{QStringLiteral("name"), house.savedGroupName},
                                  {QStringLiteral("members"), groupMembers},
                                  {QStringLiteral("timestamp"), record.persistentGroupTimestamp()}};
    // The same null the JSON parser makes, so a row read back compares equal.
    const QVariant api = apiAddress.isEmpty() || house.apiPort == 0
        ? QVariant::fromValue(nullptr)
        : QVariant(QVariantHash{{QStringLiteral("address"), apiAddress}, {QStringLiteral("port"), int(house.apiPort)}});
    const QVariantHash member{{TarvSystemMember::Id(), record.id()},
                              {TarvSystemMember::Name(), record.name()},
                              {TarvSystemMember::Host(), record.host()},
                              {TarvSystemMember::IpAddress(), record.ipAddress()},
                              {TarvSystemMember::Transcoder(), record.transcoder()},
                              {QStringLiteral("master"), house.master},
                              {QStringLiteral("savedGroup"), savedGroup},
                              {QStringLiteral("api"), api}};
    TarvRoles row;
    row.setId(record.id())
        .setType(TarvRolesType::Unknown)
        .setTitle(record.name())
        .setValue(TarvValue(QVariantHash{{HouseMember(), member}}));
    return row;
}

void HouseList::setOwn(const TarvSystemMember& record, const Discovery::House& house, const QString& apiAddress)
{
    if (record.id().isEmpty())
        return;
    write(record, Heard{house, apiAddress});
}

void HouseList::setMemberHouse(const TarvSystemMember& record, const Discovery::House& house,
                               const QHostAddress& source)
{
    if (record.id().isEmpty() || record.id() == m_ownId)
        return;
    const Heard heard{house, house.apiPort == 0 ? QString() : tarvQHostAddressToIp(source)};
    m_heard.insert(record.id(), heard);
    // Discovery tells before it writes the members row, so the row carries
    // the new record and house together and that write changes nothing here.
    write(record, heard);
}

void HouseList::write(const TarvSystemMember& record, const Heard& heard)
{
    const TarvRoles row = makeRow(record, heard.house, heard.apiAddress);
    if (m_house->rowsGetById(record.id()) != row)
        m_house->rowsSetById(row);
}

void HouseList::on_members_rowChanged(const TarvRoles& newRow, const TarvRoles& oldRow)
{
    if (newRow.isEmpty()) {
        if (oldRow.id() == m_ownId)
            return;
        m_heard.remove(oldRow.id());
        m_house->rowsRemoveById(oldRow.id());
        return;
    }
    if (newRow.id() == m_ownId)
        return;
    // A device listed without a word from discovery (an older host's
    // announcement comes with an empty House too) gets a row all the same.
    write(newRow.value().systemMember(), m_heard.value(newRow.id()));
}

void HouseList::on_members_loadingChanged(bool loading)
{
    m_house->setLoading(loading);
}
