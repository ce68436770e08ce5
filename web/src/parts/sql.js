// A statement laid out: one clause on a line, keywords told apart. The pieces are texts, never markup.
import { html } from '../html.js';

const token = /('(?:[^'\\]|\\.|'')*'|"(?:[^"\\]|\\.)*"|`[^`]*`)|(\b\d+(?:\.\d+)?\b|\?)|\b([A-Za-z_]+)\b|(\s+)|([^])/g;
const newLine = new Set(['FROM', 'WHERE', 'GROUP', 'ORDER', 'HAVING', 'LIMIT', 'UNION', 'SET', 'VALUES', 'LEFT', 'RIGHT', 'INNER', 'CROSS', 'JOIN', 'RETURNING', 'ON']);
const indented = new Set(['AND', 'OR', 'ON']);
const joins = new Set(['LEFT', 'RIGHT', 'INNER', 'OUTER', 'CROSS']);
const keywords = new Set([...newLine, ...indented, ...joins, ...('SELECT INSERT INTO UPDATE DELETE REPLACE AS IN NOT NULL IS LIKE BETWEEN EXISTS DISTINCT BY ASC DESC CASE WHEN THEN ELSE END ALL OFFSET '
  + 'CREATE TABLE INDEX DROP ALTER ADD COLUMN PRIMARY KEY BEGIN COMMIT ROLLBACK SHOW EXPLAIN FOR USING WITH').split(' ')]);
const MOST_LAID_OUT = 20000; // longer ones are shown as they are

// [{ text, kind }] of a statement; line feeds and indents are texts as well.
export function layOut(statement) {
  if (statement.length > MOST_LAID_OUT) return [{ text: statement }];
  const pieces = [];
  let depth = 0, before = '';
  for (const [text, string, number, word, space] of statement.trim().matchAll(token)) {
    if (space) {
      if (pieces.length && !pieces.at(-1).text.endsWith('\n') && !/\s$/.test(pieces.at(-1).text)) pieces.push({ text: ' ' });
      continue;
    }
    const upper = word?.toUpperCase();
    if (text === '(') depth++;
    if (text === ')') depth--;
    const starts = depth === 0 && pieces.length && (newLine.has(upper) || indented.has(upper)) && !(upper === 'JOIN' && joins.has(before));
    if (starts) {
      if (pieces.at(-1).text === ' ') pieces.pop();
      pieces.push({ text: `\n${indented.has(upper) ? '  ' : ''}` });
    }
    pieces.push({ text, kind: string ? 'string' : number ? 'number' : keywords.has(upper) ? 'keyword' : undefined });
    before = upper ?? text;
  }
  return pieces;
}

export const Sql = ({ text }) =>
  html`<pre class="sql" tabindex="0"><code>${layOut(text).map(({ text: piece, kind }) => (kind ? html`<span class=${`sql-${kind}`}>${piece}</span>` : piece))}</code></pre>`;
