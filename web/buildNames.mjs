// Writes the names the page shows for the type library's ids (element types, properties, state
// groups and values) from the library's JSON file: node buildNames.mjs LIBRARY.json OUT.json
import { readFileSync, writeFileSync } from 'node:fs';

const [library, out] = process.argv.slice(2);
const { types, stateGroups, stateValues } = JSON.parse(readFileSync(library, 'utf8'));
const byId = (list) => Object.fromEntries(list.map(({ id, name }) => [Number(id), name]));
const properties = byId(types.flatMap((type) => type.properties ?? []));
writeFileSync(out, JSON.stringify({
    types: byId(types),
    properties,
    stateGroups: byId(stateGroups),
    stateValues: byId(stateValues),
}));
