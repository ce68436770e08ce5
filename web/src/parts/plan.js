// A query plan as a table, with what it proves above it.
import { html } from '../html.js';
import { Scroll } from './scroll.js';

const MOST_ROWS = 50;

// Agents send { dialect, keys: [column, ...], values: [[cell, ...], ...] }; what has another form is shown as it is.
const isTable = plan => Array.isArray(plan?.keys) && Array.isArray(plan?.values) && plan.values.every(Array.isArray);

export function Plan({ plan, finding }) {
  if (!plan) return null;
  const told = finding && html`<p class="finding"><b>Finding</b> ${finding}</p>`;
  if (!isTable(plan)) return html`<h3>Plan</h3>${told}<pre tabindex="0">${JSON.stringify(plan, null, 1)}</pre>`;
  const used = plan.keys.map((_, at) => plan.values.some(row => row[at] !== null && row[at] !== undefined && row[at] !== ''));
  const cells = (row, tag) => row.filter((_, at) => used[at] ?? true).map((cell, at) => html`<${tag} key=${at}>${cell === null ? '' : String(cell)}<//>`);
  const left = plan.values.length - MOST_ROWS;
  return html`<h3>Plan</h3>${told}
    <${Scroll} label="Plan"><table class="plain">
      <thead><tr>${cells(plan.keys, 'th')}</tr></thead>
      <tbody>${plan.values.slice(0, MOST_ROWS).map((row, at) => html`<tr key=${at}>${cells(row, 'td')}</tr>`)}</tbody>
    </table><//>
    ${left > 0 && html`<p class="dim">and ${left} more rows: download the JSON</p>`}`;
}
