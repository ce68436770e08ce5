// The five layers that time is spent in, everywhere in this order, with these names and colours (style.css has the colours).
export const layers = [
  { key: 'database', name: 'Database' },
  { key: 'cache', name: 'Caches' },
  { key: 'external', name: 'Outgoing' },
  { key: 'code', name: 'Code' },
  { key: 'waiting', name: 'Waiting' },
];

export const layerName = key => layers.find(layer => layer.key === key)?.name ?? key;
