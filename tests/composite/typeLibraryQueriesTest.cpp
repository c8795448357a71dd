// Type-library queries: the storage classes, and what the list queries leave in the vector.
#include "compositeTest.h"

using TypeLibraryQueries = CompositeTest;

TEST_F(TypeLibraryQueries, StorageClassesStoreTheTypeOnlyWhenTheyMatch)
{
    load(R"({"types": [{"id": "0x70169", "properties": [{"id": "0x30003", "storage": 3},
      {"id": "0x30004", "storage": 4}, {"id": "0x30011", "storage": 17},
      {"id": "0x30012", "storage": 12}, {"id": "0x30013", "storage": 19}]}]})");
    using Predicate = BOOL (*)(UINT32, UINT32*);
    const Predicate predicates[] = {IsNumberTypeByPropertyID, IsStringTypeByPropertyID,
                                    IsBoolTypeByByPropertyID, IsEnumTypeByByPropertyID};
    // Property, its storage type, the predicate that accepts it (-1: none).
    const std::tuple<UINT32, UINT32, int> cases[] = {
        {0x30003, 3, 3}, {0x30004, 4, 0}, {0x30011, 17, -1}, {0x30012, 12, 1}, {0x30013, 19, 0}};
    for (const auto& [property, code, matching] : cases)
    {
        for (int i = 0; i < 4; ++i)
        {
            UINT32 type = 99;
            const BOOL expected = i == matching ? TRUE : FALSE;
            EXPECT_EQ(predicates[i](property, &type), expected) << std::hex << property << " " << i;
            EXPECT_EQ(type, expected ? code : 99u);
        }
    }
}

TEST_F(TypeLibraryQueries, EmptyDefinitionListsLeaveOrEmptyTheVector)
{
    load(R"({"types": [{"id": "0x70170"}, {"id": "0x70169",
      "relations": [{"type": "0x70170", "kind": -1, "attributes": [1, 65535, 7]}],
      "properties": [{"id": "0x30004", "storage": 4, "attributes": [9, 0, 0, 0, 0, 0, 0]}]}]})");
    std::vector<EGW_PropertyDef_Thrift> properties(3);
    EXPECT_EQ(EGW_ELementServerGetPropertyInformationList(0x70170, properties), 0u);
    EXPECT_EQ(properties.size(), 3u);
    // A type with properties replaces what the vector held.
    EXPECT_EQ(EGW_ELementServerGetPropertyInformationList(0x70169, properties), 1u);
    ASSERT_EQ(properties.size(), 1u);
    EXPECT_TRUE(properties[0].PropertyID == 0x30004 && properties[0].Attr1 == 9);
    std::vector<EGW_RelationDef_Thrift> relations(2);
    EXPECT_EQ(EGW_ELementServerGetRelationList(0x70169, relations), 1u);
    ASSERT_EQ(relations.size(), 1u);
    EXPECT_EQ(relations[0].RelationKind, -1);
    EXPECT_EQ(relations[0].Attr2, 65535u);
    EXPECT_EQ(EGW_ELementServerGetRelationList(0x70170, relations), 0u);
    EXPECT_TRUE(relations.empty());
}
