int placeholder;
