// Who calls whom, from left to right: applications that others call stand behind those, and what they all ask at the right
// edge. The table beside it says the same.
import { html } from '../html.js';
import { count, duration } from '../format.js';
import { address } from '../router.js';

const WIDTH = 940, NODE_WIDTH = 190, NODE_HEIGHT = 40, GAP = 26, MOST_NAME = 20;

const short = text => (text.length > MOST_NAME ? `${text.slice(0, MOST_NAME - 1)}…` : text);

// Applications and targets as boxes in columns; an application stands one column behind the last one that calls it.
function placed({ applications, edges }) {
  const nodes = new Map();
  const add = (key, node) => nodes.has(key) || nodes.set(key, { key, column: 0, ...node });
  for (const { name, ...sums } of applications) add(`application ${name}`, { kind: 'application', name, sums });
  const lines = edges.map(edge => {
    const from = `application ${edge.from}`, to = edge.application ? `application ${edge.application}` : `${edge.kind} ${edge.to}`;
    add(from, { kind: 'application', name: edge.from });
    add(to, { kind: edge.application ? 'application' : edge.kind, name: edge.application || edge.to });
    return { ...edge, from, to };
  });
  const between = lines.filter(line => line.from !== line.to && nodes.get(line.to).kind === 'application');
  for (let round = 0; round < applications.length; round++) for (const { from, to } of between) nodes.get(to).column = Math.min(3, Math.max(nodes.get(to).column, nodes.get(from).column + 1));
  const last = 1 + Math.max(0, ...[...nodes.values()].map(({ column }) => column));
  const columns = Array.from({ length: last + 1 }, () => []);
  for (const node of nodes.values()) {
    if (node.kind !== 'application') node.column = last;
    columns[node.column].push(node);
  }
  // What the first column asks passes above the applications in between: these stand at the bottom, and so does what they ask.
  const asker = new Map(lines.map(({ from, to }) => [to, nodes.get(from).column]));
  columns[last].sort((a, b) => (asker.get(a.key) ?? 0) - (asker.get(b.key) ?? 0));
  const rows = Math.max(...columns.map(({ length }, x) => length + (x > 0 && x < last ? 1 : 0))), height = rows * (NODE_HEIGHT + GAP) + GAP;
  columns.forEach((column, x) => column.forEach((node, y) => {
    const free = height - column.length * (NODE_HEIGHT + GAP), between = x > 0 && x < last;
    node.x = x * (WIDTH - NODE_WIDTH) / last;
    node.y = (between ? free - GAP / 2 : (free + GAP) / 2) + y * (NODE_HEIGHT + GAP);
  }));
  for (const line of lines) line.alone = lines.filter(({ to }) => to === line.to).length === 1;
  return { nodes, lines, height };
}

const inWords = edge => `${edge.from.replace('application ', '')} calls ${edge.to.replace(/^\w+ /, '')} ${count(edge.count)} times, p95 ${duration(edge.p95_us)}${edge.errors ? `, ${count(edge.errors)} failed` : ''}`;

function Edge({ edge, nodes, most }) {
  const from = nodes.get(edge.from), to = nodes.get(edge.to);
  const told = `${count(edge.count)} · p95 ${duration(edge.p95_us)}`, failed = edge.errors > 0 && html`<tspan class="edge-bad"> · ${count(edge.errors)} failed</tspan>`;
  if (from === to) {
    const { x, y } = from;
    return html`<g><path class=${`edge edge-${edge.kind}`} d=${`M${x + 14} ${y} C${x + 14} ${y - 22} ${x + 44} ${y - 22} ${x + 44} ${y}`} stroke-width="2" /><text class="edge-text" x=${x + 50} y=${y - 6}>itself ${told}${failed}</text></g>`;
  }
  const x1 = from.x + NODE_WIDTH, x2 = to.x, y1 = from.y + NODE_HEIGHT / 2, y2 = to.y + NODE_HEIGHT / 2, bend = (x2 - x1) / 2;
  return html`<g><path class=${`edge edge-${edge.kind}`} d=${`M${x1} ${y1} C${x1 + bend} ${y1} ${x2 - bend} ${y2} ${x2} ${y2}`} stroke-width=${1 + 5 * Math.sqrt(edge.total_us / most)} />
    <text class="edge-text" x=${edge.alone ? x2 - 8 : x1 + 0.6 * (x2 - x1)} y=${(edge.alone ? y2 : y1 + 0.648 * (y2 - y1)) - 6} text-anchor=${edge.alone ? 'end' : 'middle'}>${told}${failed}</text></g>`;
}

function Node({ node, range }) {
  const box = html`<g><rect class=${`node node-${node.kind}`} x=${node.x} y=${node.y} width=${NODE_WIDTH} height=${NODE_HEIGHT} rx="4" />
    <text class="node-name" x=${node.x + 12} y=${node.y + (node.sums ? 17 : 25)}>${short(node.name || '(no name)')}<title>${node.name}</title></text>
    ${node.sums && html`<text class="node-sums" x=${node.x + 12} y=${node.y + 33}>${count(node.sums.count)} · p95 ${duration(node.sums.p95_us)}</text>`}</g>`;
  const path = { application: '/overview', database: '/queries' }[node.kind];
  return path ? html`<a href=${address(path, { ...range, app: node.kind === 'application' ? node.name : '' })}>${box}</a>` : box;
}

export function ServiceMap({ answer, range }) {
  const { nodes, lines, height } = placed(answer);
  const most = Math.max(1, ...lines.map(({ total_us }) => total_us));
  return html`<div class="scroll" tabindex="0" role="region" aria-label="Map of the services"><svg class="map" viewBox=${`0 0 ${WIDTH} ${height}`} role="group" aria-label=${lines.map(inWords).join('; ')}>
    ${lines.map((edge, at) => html`<${Edge} key=${at} edge=${edge} nodes=${nodes} most=${most} />`)}
    ${[...nodes.values()].map(node => html`<${Node} key=${node.key} node=${node} range=${range} />`)}</svg></div>`;
}
