<?php echo "old";
