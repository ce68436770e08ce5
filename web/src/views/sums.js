// Lists of what spans requests: queries, errors, calls; each leads to the one key.
import { useQuestion } from '../data.js';
import { count, duration, placeText, share, time } from '../format.js';
import { html } from '../html.js';
import { rangeOf, SumRange } from '../parts/range.js';
import { Scroll } from '../parts/scroll.js';
import { Sparkline } from '../parts/sparkline.js';
import { State } from '../parts/state.js';
import { address } from '../router.js';

const LIVE_MS = 15000;

const number = (title, of, wide) => ({ title, of, wide, number: true });
const trend = { title: 'Trend', of: row => html`<${Sparkline} trend=${row.trend} />`, wide: true };
const common = [number('Time', row => duration(row.total_us)), number('Count', row => count(row.count)), number('Average', row => duration(row.average_us), true), number('p95', row => duration(row.p95_us), true)];

const Finding = ({ row }) => html`${row.place && html`<div class="dim">at ${placeText(row)}</div>`}
  ${row.finding && html`<div class="finding"><b>Finding</b> ${row.finding}</div>`}${row.suggestion && html`<div class="finding"><b>Suggestion</b> <code>${row.suggestion}</code></div>`}`;

// One list for each kind: what the name leads to, the columns beside it, and what to say when there is none.
const lists = {
  query: { title: 'Queries', path: '/queries', name: row => html`<code>${row.name}</code>`, under: Finding, sort: 'total',
    columns: [...common, number('Share', (row, all) => share(row.total_us, all.total_us), true), trend], empty: 'No query in this range.' },
  error: { title: 'Errors', path: '/errors', sort: 'count', name: row => html`<b>${row.class}</b> ${row.message ?? row.name}`, under: ({ row }) => html`<div class="dim">${row.new_since && html`<span class="new">new since ${row.new_since}</span> `}${row.place && `at ${row.place}`}</div>`,
    columns: [number('Count', row => count(row.count)), number('First seen', row => (row.first_seen ? time(row.first_seen) : '–'), true), number('Last seen', row => (row.last_seen ? time(row.last_seen) : '–'), true), trend], empty: 'No error in this range.' },
  external: { title: 'Outgoing calls', path: '/services', sort: 'total', name: row => row.name, columns: [...common, number('Errors', row => count(row.errors)), trend], empty: 'No outgoing call in this range.' },
  cache: { title: 'Caches', path: '/caches', sort: 'total', name: row => row.name, columns: [...common, trend], empty: 'No cache operation in this range.' },
};

const cell = (column, content, tag) => html`<${tag} class=${`${column.number ? 'number ' : ''}${column.wide ? 'wide' : ''}`}>${content}<//>`;

export function SumsList({ kind, parameters, range }) {
  const { title, path, name, under: Under, sort, columns, empty } = lists[kind];
  const answer = useQuestion('top', { by: kind, sort, app: parameters.app, n: 200, ...range }, LIVE_MS);
  const rows = answer.data?.rows ?? [];
  return html`<${State} answer=${answer} empty=${rows.length === 0 && html`<p>${empty}</p>`}>
    <${Scroll} label=${title}><table><thead><tr><th>${title}</th><th class="wide">Application</th>${columns.map(column => cell(column, column.title, 'th'))}</tr></thead>
      <tbody>${rows.map(row => html`<tr key=${`${row.id} ${row.application}`}><td class="name">${row.id ? html`<a href=${address(`${path}/${row.id}`, range)}>${name(row)}</a>` : row.name}${Under && html`<${Under} row=${row} />`}</td>
        <td class="wide">${row.application}</td>${columns.map(column => cell(column, column.of(row, answer.data.all), 'td'))}</tr>`)}</tbody></table><//>
    ${answer.data?.left_out > 0 && html`<p class="dim">and ${count(answer.data.left_out)} more</p>`}<//>`;
}

const view = kind => function Sums({ parameters }) {
  const { path, title } = lists[kind];
  return html`<div class="title"><h1>${title}</h1><${SumRange} path=${path} parameters=${parameters} /></div>
    <${SumsList} kind=${kind} parameters=${parameters} range=${rangeOf(parameters)} />`;
};

export const Queries = view('query');
export const Errors = view('error');
